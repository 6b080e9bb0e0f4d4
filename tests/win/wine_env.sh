# wine_env.sh - sourced by the tests that run Windows programs under Wine. Exits 77 (skipped) where
# Wine is not installed, unless QMT_REQUIRE_WINE=1 (the CI, which installs it) makes that a
# failure. Makes $work, a scratch folder holding a Wine prefix of its own, and removes it, after
# ending that prefix's wineserver, on every exit.
if ! command -v wine >/dev/null || ! command -v wineserver >/dev/null; then
  [ "${QMT_REQUIRE_WINE:-0}" = 1 ] && { echo "wine is not installed"; exit 1; }
  echo "wine is not installed: skipped"; exit 77
fi
work=$(mktemp -d "${TMPDIR:-/tmp}/qmt-wine-XXXXXX")
export WINEPREFIX=$work/prefix
# No debugger, no desktop integration, no .NET or HTML engine to offer: a quiet, quick prefix.
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d" DISPLAY=
wine_cleanup() {
  timeout 30 wineserver -k >/dev/null 2>&1
  timeout 30 wineserver -w >/dev/null 2>&1
  rm -rf "$work"
}
trap wine_cleanup EXIT
trap 'exit 130' INT TERM

# A path of this machine as a Windows program under Wine names it (drive Z: is the root).
winpath() { printf 'Z:%s' "$1" | tr / '\\'; }
