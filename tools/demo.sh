#!/usr/bin/env bash
# The main job: builds ringrec, then on a simulated recorder in a temporary directory
# formats two disks, records a few minutes of several channels, shows the disk report
# and the volume listing, finds and plays the recording, draws the day's timeline and
# exports a minute of one channel to MP4. The MP4 and the timeline stay in a folder named
# at the end; the board goes. Given real disks or images (tools/demo.sh /dev/sdX ...),
# it only reads them: volume information, listing and the recorded time.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
command -v cmake >/dev/null && command -v g++ >/dev/null || {
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq && DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq cmake g++ >/dev/null
}
cmake -S "$top" -B "$top/out/demo" -DCMAKE_BUILD_TYPE=Release -DRINGREC_TESTS=OFF >/dev/null
cmake --build "$top/out/demo" -j "$(nproc)" -- --no-print-directory >/dev/null
rr="$top/out/demo/ringrec"

if [ $# -gt 0 ]; then
  "$rr" info "$1"
  "$rr" ls "$1"
  "$rr" search "$@"
  exit 0
fi

result=$(mktemp -d /tmp/ringrec-demo-XXXXXX)
board=$(mktemp -d /tmp/ringrec-board-XXXXXX)
trap 'rm -rf "$board"' EXIT
set -x
"$rr" sim create "$board" --disks 2 --size 2G --usb sdc
"$rr" --root "$board" format sda
"$rr" --root "$board" format sdb
printf '20 motion 0 0xFFFFFFFF\n70 vloss 0x2\n130 sensor 0x1\n' >"$board/events"
"$rr" --root "$board" record --channels 4 --from "2026-11-22 10:00:00" --minutes 3 \
  --main-kbps 2000 --events "$board/events"
"$rr" --root "$board" disks
"$rr" --root "$board" info sda
"$rr" --root "$board" ls sda
"$rr" --root "$board" search
"$rr" --root "$board" search --event motion
"$rr" --root "$board" play --at "2026-11-22 10:00:59" --count 6
"$rr" --root "$board" timeline --day 2026-11-22 "$result/timeline.svg"
"$rr" --root "$board" export --from "2026-11-22 10:00:30" --to "2026-11-22 10:01:30" --ch 0 "$result"
set +x
echo
echo "The exported MP4 (a minute of channel 0) and the day's timeline are in $result:"
ls -l "$result"
