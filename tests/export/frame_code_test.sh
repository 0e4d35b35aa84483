#!/usr/bin/env bash
# The simulator's default H.264 as a viewer meets it: recorded with the tool, exported
# and extracted, then decoded by ffmpeg without a single error, at the size the frame
# headers carry, and read back picture by picture through the frame code: the right
# channel, every picture of the range from its first key frame, none missing, none
# twice, in order. Chromium plays an export. A given stream is stamped with its own size.
# Usage: frame_code_test.sh RINGREC FRAMECODE BROWSER_PLAY_PY
. "$(dirname "$0")/../tools/cli_kit.sh" frame_code "$1"
framecode=$2
browser=$3

b=$dir/board
o=$dir/o
mkdir -p "$o"
t0=$(date -u -d "2026-11-22 09:59:50" +%s)
check sim-create 0 rr sim create "$b" --disks 1 --size 1G
check format 0 rr --root "$b" format sda
check record 0 rr --root "$b" record --channels 2 --from "2026-11-22 09:59:50" --minutes 1

# decoded NAME FILE W H CH FIRST_TIME SECONDS: ffmpeg decodes FILE silently at W x H, and
# its pictures are channel CH's main stream from FIRST_TIME for SECONDS at 25 per second.
decoded() {
  local name=$1 f=$2 w=$3 h=$4 ch=$5 first=$6 secs=$7
  equal "$name-ffmpeg" "$(ffmpeg -nostdin -v error -i "$f" -f null - 2>&1 | head -5)" ""
  equal "$name-size" "$(ffprobe -v error -select_streams v -show_entries stream=width,height \
    -of csv=p=0 "$f")" "$w,$h"
  equal "$name-frames" "$(ffprobe -v error -select_streams v -count_frames \
    -show_entries stream=nb_read_frames -of csv=p=0 "$f")" "$((secs * 25))"
  ffmpeg -nostdin -v error -i "$f" -f rawvideo -pix_fmt gray - >"$dir/gray"
  "$framecode" "$w" "$h" "$ch" 0 "$((first * 1000))" 25 <"$dir/gray" >"$dir/fc" 2>&1 ||
    bad "$name-code: $(cat "$dir/fc")"
}

# Across the hour: one file per hour, together one unbroken run (the end second included).
check export 0 rr --root "$b" export --from "2026-11-22 09:59:55" --to "2026-11-22 10:00:05" \
  --ch 1 "$o"
files=("$o"/*.m4v)
equal export-files "${files[*]##*/}" \
  "20261122_09h59m55s_ch02_1920x1080x25.m4v 20261122_10h00m00s_ch02_1920x1080x25.m4v"
decoded export-1 "${files[0]}" 1920 1080 1 $((t0 + 5)) 5
decoded export-2 "${files[1]}" 1920 1080 1 $((t0 + 10)) 6

# Extraction: the raw main stream of a channel, seconds [--at, --to).
check extract 0 rr --root "$b" play --at "2026-11-22 09:59:57" --to "2026-11-22 10:00:02" \
  --extract 0 "$dir/x.h264"
decoded extract "$dir/x.h264" 1920 1080 0 $((t0 + 7)) 5

# A browser decodes the export as it plays it.
if python3 "$browser" "$o" "${files[0]##*/}" 30 >"$dir/chromium"; then
  python3 - "$dir/chromium" <<'PY' || bad "chromium: $(cat "$dir/chromium")"
import json, sys
r = json.load(open(sys.argv[1]))
sys.exit(0 if r["error"] == 0 and r["width"] == 1920 and r["frames"] >= 100 and
         r["currentTime"] >= r["duration"] - 0.05 else 1)
PY
else
  bad "chromium: $(cat "$dir/chromium")"
fi

# A given stream keeps its own picture size in the frame headers and the file names.
ffmpeg -nostdin -v error -f lavfi -i testsrc=size=1280x720:rate=25 -t 2 -c:v libx264 -bf 0 \
  -g 25 -pix_fmt yuv420p -f h264 "$dir/in.264"
check input-format 0 rr --root "$b" format sda
check input-record 0 rr --root "$b" record --channels 1 --from "2026-11-22 12:00:00" \
  --minutes 1 --input "$dir/in.264"
rm -f "$o"/*
check input-export 0 rr --root "$b" export --from "2026-11-22 12:00:10" \
  --to "2026-11-22 12:00:12" --ch 0 "$o"
has input-export out "20261122_12h00m10s_ch01_1280x720x25.m4v"
equal input-size "$(ffprobe -v error -select_streams v -show_entries stream=width,height \
  -of csv=p=0 "$o"/*.m4v)" "1280,720"

finish
