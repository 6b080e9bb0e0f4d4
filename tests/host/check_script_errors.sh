#!/usr/bin/env bash
# check_script_errors.sh QMTRM - every malformed script line is refused before anything runs:
# exit 2 and the line's number with the reason. Each case is a one-line script after a valid
# first line, so the error must name line 2 and no call may have run.
set -u
qmtrm=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/qmtrm-errors-XXXXXX")
trap 'rm -rf "$work"' EXIT
fail=0
while IFS='|' read -r line reason; do
  [ -z "$line" ] && continue
  printf 'DoMontr sdw sdw1\n%s\n' "$line" >"$work/s.qmt"
  out=$("$qmtrm" script --plugin /nonexistent "$work/s.qmt" 2>&1)
  rc=$?
  if [ $rc -ne 2 ] || [[ "$out" != *"line 2: $reason"* ]]; then
    echo "FAIL: '$line': exit $rc, wanted 2 and 'line 2: $reason'; got: $out"
    fail=1
  fi
done <<'CASES'
ratio 99999999999|ratio out of range (-2147483648 to 2147483647): 99999999999
wait 99999999999|MS out of range (0 to 3600000): 99999999999
sleep -1|MS out of range (0 to 3600000): -1
tick set 4294967296|VALUE out of range (0 to 4294967295): 4294967296
tick add 0x1x|not a number for MS: 0x1x
tick freeze 1 2|usage: tick freeze [VALUE]
tick thaw now|usage: tick thaw
tick|usage: tick set VALUE, tick add MS, tick freeze [VALUE] or tick thaw
expect 4294967296|N out of range (-2147483648 to 4294967295): 4294967296
expect != |not a number for N: !=
MontrStatusChange sdw sdw1 0x100000000|CTRL out of range (-2147483648 to 4294967295): 0x100000000
InitRscDll qmtsdw 1 2 3|InitRscDll takes 0 to 3 argument(s)
DoMontr sdw "sdw1|a quote is not closed
DoMontr sdw "sdw1"x|a closing quote must end its word
DoMontr sdw sd"w1|a quote inside a word
expect-log Start|usage: expect-log [LEVEL] [FUNCTION] "TEXT" (the text in double quotes)
expect-log ERR x.y "z"|not a level or function name: x.y
expect-log a b c "x"|usage: expect-log [LEVEL] [FUNCTION] "TEXT" (the text in double quotes)
expect-log-count x "y"|not a number for count: x
expect-no-log|usage: expect-no-log [LEVEL] [FUNCTION] "TEXT" (the text in double quotes)
mark now|usage: mark
fault GlobalAlloc 0|N out of range (1 to 4294967295): 0
fault GlobalAlloc|usage: fault FUNCTION N [ERR] or fault clear
fault "Global Alloc" 1|not a function name: Global Alloc
expect-live files 0|usage: expect-live handles N or expect-live allocations N
expect-live handles -1|N out of range (0 to 1000000): -1
conf set /root/monitor 1 2|usage: conf set KEY VALUE
conf set monitor/sdw 1|not a key path: monitor/sdw
conf remove /root|not a key path: /root
conf write|usage: conf write FILE
conf|usage: conf set KEY VALUE, conf remove KEY or conf write FILE
shm|usage: shm NAME
expect-shm sdw1 4 Normal|usage: expect-shm NAME PROGRESS "DESCRIPTION" (the description in double quotes)
sim disk 1 sleep|sim: <statement>:1: unknown disk behaviour 'sleep'
sim release 1 2 3|usage: sim release DISK [ERR]
async|usage: async [NAME] CALL
async 1x DoMontr sdw sdw1|not an async name: 1x
async a b DoMontr sdw sdw1|not an export: b
wait a b|not a number for MS: b
wait a|no async call named a before this line
"DoMontr" sdw sdw1|a line begins with a keyword or an export, not a quoted word
frobnicate|unknown call: frobnicate
CASES
# A control character (here a vertical tab) anywhere in a line.
printf 'DoMontr sdw sdw1\nDoMontr sdw \vsdw1\n' >"$work/s.qmt"
out=$("$qmtrm" script --plugin /nonexistent "$work/s.qmt" 2>&1)
rc=$?
[ $rc -eq 2 ] && [[ "$out" == *"line 2: control character 11 in the line"* ]] || { echo "FAIL: control character: $rc $out"; fail=1; }
exit $fail
