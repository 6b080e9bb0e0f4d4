#!/usr/bin/env bash
# check_docs.sh DOC SCRIPTDIR - every example script shown in the document is byte for byte the
# file the tests run, and every script the tests run is shown.
set -u
doc=$1
dir=$2
fail=0
shown=$(sed -n 's/^### Example: `tests\/host\/scripts\/\(.*\.qmt\)`$/\1/p' "$doc")
for name in $shown; do
  body=$(awk -v h="### Example: \`tests/host/scripts/$name\`" '
    $0 == h { found = 1; next }
    found && /^```text$/ { inside = 1; next }
    inside && /^```$/ { exit }
    inside { print }' "$doc")
  if [ "$body" != "$(cat "$dir/$name")" ]; then echo "FAIL: $name differs from its example"; fail=1; fi
done
for f in "$dir"/*.qmt; do
  name=$(basename "$f")
  grep -qxF "### Example: \`tests/host/scripts/$name\`" "$doc" || { echo "FAIL: $name is not shown"; fail=1; }
done
[ -n "$shown" ] || { echo "FAIL: no examples found"; fail=1; }
exit $fail
