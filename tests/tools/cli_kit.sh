# Sourced by the tool's command-line tests: the tool under test (run through the
# emulator when cross-built), a scratch directory, and checks that count failures.
#   . cli_kit.sh NAME RINGREC [EMULATOR...]
set -u
cli_name=$1
rr_bin=$2
emu=${3:-}
rr() { $emu "$rr_bin" "$@"; }
dir=$(mktemp -d "/tmp/ringrec-$cli_name-XXXXXX")
trap 'rm -rf "$dir"' EXIT
failures=0
bad() { echo "FAIL $*"; failures=$((failures + 1)); }
check() {  # check NAME EXPECTED_STATUS COMMAND...: runs it, output in $dir/out and $dir/err
  local name=$1 want=$2; shift 2
  "$@" >"$dir/out" 2>"$dir/err"
  local got=$?
  [ "$got" = "$want" ] || { bad "$name: exit $got, wanted $want"; cat "$dir/out" "$dir/err"; }
}
has() {  # has NAME FILE TEXT
  grep -qF -- "$3" "$dir/$2" || { bad "$1: no '$3' in $2"; head -20 "$dir/$2"; }
}
lacks() {  # lacks NAME FILE TEXT
  ! grep -qF -- "$3" "$dir/$2" || bad "$1: '$3' in $2"
}
equal() {  # equal NAME GOT WANTED
  [ "$2" = "$3" ] || bad "$1: got '$2', wanted '$3'"
}
finish() {
  [ "$failures" = 0 ] && echo "$cli_name: all passed" || echo "$cli_name: $failures failed"
  exit $((failures > 0))
}
