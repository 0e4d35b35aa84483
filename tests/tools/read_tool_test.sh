#!/usr/bin/env bash
# The read side of the tool (search, play, timeline, ls) on a recording made by the
# tool's own simulated recorder: 4 minutes of 2 channels across an hour boundary that
# fill the first of two disks and go on on the second, with motion, video loss and
# sensor events at known seconds. Usage: read_tool_test.sh RINGREC [EMULATOR...]
. "$(dirname "$0")/cli_kit.sh" read_tool "$@"

b=$dir/board
rr sim create "$b" --disks 2 --size 160M >/dev/null && rr --root "$b" format sda >/dev/null &&
  rr --root "$b" format sdb >/dev/null || { echo "FAIL: no board"; exit 1; }
cat >"$dir/events" <<'END'
30 motion 1 0x0F    # 10:58:30, grid words 0..3 of channel 1
70 vloss 0x1        # 10:59:10
150 sensor 0x2      # 11:00:30
180 motion 0 0x1    # 11:01:00: the last minute's first second, kept though nothing follows
END
check record 0 rr --root "$b" record --channels 2 --from "2024-05-01 10:58" --minutes 4 \
  --main-kbps 3000 --sub-kbps 100 --no-audio --events "$dir/events"
# The simulator's own count of the blocks it handed to the library.
blocks=$(sed -n 's/.*: \([0-9]*\) blocks.*/\1/p' "$dir/out")
[ -n "$blocks" ] || { echo "FAIL: no block count"; cat "$dir/out"; exit 1; }

# ---- search: recorded spans per disk, events, motion --------------------------------
check spans 0 rr --root "$b" search
has spans out "/dev/sda:"
has spans out "  2024-05-01 10:58:00  to  "
has spans out "/dev/sdb:"
has spans out "  to  2024-05-01 11:02:00"
if command -v python3 >/dev/null; then
  check spans-json 0 rr --root "$b" search --json
  # The disks' spans together cover the recorded four minutes without a gap.
  python3 - "$dir/out" <<'END' || bad "spans-json: the spans do not cover 10:58 to 11:02"
import json, sys
spans = sorted((s["from"], s["to"]) for d in json.load(open(sys.argv[1]))["disks"] for s in d["spans"])
lo, hi = spans[0]
for f, t in spans[1:]:
    assert f <= hi, spans
    hi = max(hi, t)
assert (lo, hi) == (1714561080, 1714561320), (lo, hi)
assert len(json.load(open(sys.argv[1]))["disks"]) == 2
END
fi

search_is() {  # search_is NAME "EXPECTED LINES" ARGS...: the listed times, exactly
  local name=$1 want=$2; shift 2
  check "$name" 0 rr --root "$b" search "$@"
  equal "$name" "$(grep '^  ' "$dir/out" | tr -d ' ' | tr '\n' ' ')" "$want"
}
search_is motion-ch1 "2024-05-0110:58 " --event motion --ch 1
search_is motion-ch0 "2024-05-0111:01 " --event motion --ch 0
search_is vloss "2024-05-0110:59 " --event vloss
search_is sensor "2024-05-0111:00 " --event sensor --ch 1
search_is sensor-ch0 "" --event sensor --ch 0
search_is motion-record "2024-05-0110:58 " --motion 1
search_is motion-ch0-record "2024-05-0111:01 " --motion 0
# The grid holds 6 snapshots of 10 seconds: the one of second 30 matches.
search_is motion-cells "2024-05-0110:58:30 " --motion 1 --cells 0x0F
search_is motion-cells-elsewhere "" --motion 1 --cells 0xF0,0,0
search_is motion-span "" --motion 1 --from "2024-05-01 10:59" --to "2024-05-01 11:05"

# The library's own lines only with -v.
check quiet 0 rr --root "$b" search --event motion
[ -s "$dir/err" ] && bad "quiet: stderr not empty: $(head -2 "$dir/err")"
check verbose 0 rr --root "$b" -v search --event motion
has verbose err "q_log["

# ---- play ---------------------------------------------------------------------------
check forward 0 rr --root "$b" play --at "2024-05-01 10:58" --count 1000000
sed '1d;$d' "$dir/out" >"$dir/forward"
equal forward-blocks "$(wc -l <"$dir/forward")" "$blocks"
has forward out "(end of the recording)"
cut -c1-19 "$dir/forward" | sort -c || bad "forward: times go backwards"
grep -q "/dev/sda" "$dir/forward" && grep -q "/dev/sdb" "$dir/forward" || bad "forward: not both disks"
grep -q "^2024-05-01 10:59:59" "$dir/forward" && grep -q "^2024-05-01 11:00:00" "$dir/forward" ||
  bad "forward: does not cross the hour"

# Backwards from the last second: every block, in exactly the reverse order; from the
# middle of a minute: every block at or before that second.
check reverse 0 rr --root "$b" play --at "2024-05-01 11:01:59" --reverse --count 1000000
sed '1d;$d' "$dir/out" | tac | cmp -s - "$dir/forward" || bad "reverse: not the forward blocks reversed"
check reverse-mid 0 rr --root "$b" play --at "2024-05-01 11:00:30" --reverse --count 1000000
sed '1d;$d' "$dir/out" | tac | cmp -s - <(awk '$2 <= "11:00:30"' "$dir/forward") ||
  bad "reverse-mid: not the blocks up to 11:00:30 reversed"

# One key frame a second (the group of pictures is the frame rate), across the hour.
check keyframes 0 rr --root "$b" play --at "2024-05-01 10:59:58" --keyframes --count 6
equal keyframes "$(sed 1d "$dir/out" | cut -c12-19,22-29 | tr '\n' ' ')" \
  "10:59:58main key 10:59:59main key 11:00:00main key 11:00:01main key 11:00:02main key 11:00:03main key "
check keyframes-ch1 0 rr --root "$b" play --at "2024-05-01 10:59:58" --keyframes --ch 1 --count 6
equal keyframes-ch1 "$(sed 1d "$dir/out" | cut -c12-19 | tr '\n' ' ')" \
  "10:59:58 10:59:59 11:00:00 11:00:01 11:00:02 11:00:03 "
# Channel 2 was not recorded: no key frame carries it.
check keyframes-ch2 1 rr --root "$b" play --at "2024-05-01 10:59:58" --keyframes --ch 2
has keyframes-ch2 err "no main-stream key frame with channels 2"
has keyframes-ch2 err "channel 2 holds nothing after --at"
# Steps of more than 10 s keep their pace across minutes.
check keyframes-step 0 rr --root "$b" play --at "2024-05-01 10:58:30" --keyframes --step 10 --count 5
equal keyframes-step "$(sed 1d "$dir/out" | cut -c12-19 | tr '\n' ' ')" "10:58:30 10:58:41 10:58:52 10:59:03 10:59:14 "
check keyframes-step-back 0 rr --root "$b" play --at "2024-05-01 10:59:05" --keyframes --step 10 --reverse --count 3
equal keyframes-step-back "$(sed 1d "$dir/out" | cut -c12-19 | tr '\n' ' ')" "10:59:05 10:58:54 10:58:43 "
check keyframes-back 0 rr --root "$b" play --at "2024-05-01 11:00:01" --keyframes --reverse --count 3
equal keyframes-back "$(sed 1d "$dir/out" | cut -c12-19 | tr '\n' ' ')" "11:00:01 11:00:00 10:59:59 "

check before-start 0 rr --root "$b" play --at "2024-05-01 09:00" --count 1
equal before-start "$(sed -n 2p "$dir/out" | cut -c1-29)" "2024-05-01 10:58:00  main key"
check after-end 1 rr --root "$b" play --at "2024-05-01 12:00"
has after-end err "nothing recorded at or after 2024-05-01 12:00:00"
lacks after-end err "r_set["

# ---- timeline -----------------------------------------------------------------------
check timeline 0 rr --root "$b" timeline --day 2024-05-01 "$dir/day.svg"
has timeline out "4 minutes recorded, 2 with motion, 1 with video loss, 1 with sensor events"
equal timeline-cells "$(grep -c 'fill="#7fa7d9" stroke="#dddddd"' "$dir/day.svg")" 4
if command -v python3 >/dev/null; then
  python3 -c "import sys, xml.dom.minidom as m; m.parse(sys.argv[1])" "$dir/day.svg" ||
    bad "timeline: not well-formed XML"
fi
check timeline-empty-day 0 rr --root "$b" timeline --day 2024-05-02 "$dir/empty.svg"
has timeline-empty-day out "0 minutes recorded"

# ---- ls -----------------------------------------------------------------------------
check ls 0 rr --root "$b" ls sda
has ls out "HOUR_"
has ls out "2024-05-01 10:58:00"
has ls out "channels 0,1"
equal ls-minutes "$(grep -c '^  MIN_' "$dir/out")" "$(sed -n 's/.*hours*, \([0-9]*\) minute.*/\1/p' "$dir/out")"
check ls-raw 0 rr --root "$b" ls sda --raw
has ls-raw out "hour entries"

# ---- disk images pulled from the board -----------------------------------------------
cp --sparse=always "$b/dev/sda" "$dir/a.img"
cp --sparse=always "$b/dev/sdb" "$dir/b.img"
check images 0 rr play "$dir/a.img" "$dir/b.img" --at "2024-05-01 10:58" --count 1000000
equal images-blocks "$(sed '1d;$d' "$dir/out" | wc -l)" "$blocks"
check image-one 0 rr search "$dir/b.img"
has image-one out "to  2024-05-01 11:02:00"
# A root table that cannot be read is said so.
cp --sparse=always "$b/dev/sda" "$dir/broken.img"
dd if=/dev/zero of="$dir/broken.img" bs=16 count=1 seek=$((0x400000 / 16)) conv=notrunc 2>/dev/null
check ls-broken 1 rr ls "$dir/broken.img"
has ls-broken err "cannot read the root table"
lacks ls-broken err "x_read["
check ls-broken-raw 1 rr ls "$dir/broken.img" --raw

# ---- bad usage ------------------------------------------------------------------------
check bad-event 2 rr --root "$b" search --event smoke
check bad-motion 2 rr --root "$b" search --motion 32
check bad-cells 2 rr --root "$b" search --motion 1 --cells 0xZZ
check bad-span 2 rr --root "$b" search --from "2024-05-01 11:00" --to "2024-05-01 10:00"
check no-at 2 rr --root "$b" play
check bad-extract 2 rr --root "$b" play --at "2024-05-01 10:58" --extract 40 "$dir/x.h264"
check no-day 2 rr --root "$b" timeline "$dir/x.svg"
check no-disks 1 rr play "$dir/nothing.img" --at 0
echo "5 motion 1 0" >"$dir/no-area"
check motion-no-area 2 rr --root "$b" record --channels 1 --from 0 --minutes 1 --events "$dir/no-area"

# ---- --extract: a channel recorded from an x264 stream decodes to the source's frames --
if command -v ffmpeg >/dev/null; then
  x=$dir/x264
  ffmpeg -v error -f lavfi -i testsrc=size=160x96:rate=25 -frames:v 1500 -c:v libx264 \
    -preset ultrafast -bf 0 -x264-params keyint=25:min-keyint=25:scenecut=0 -f h264 "$dir/src.264"
  rr sim create "$x" --disks 1 --size 64M >/dev/null && rr --root "$x" format sda >/dev/null
  # 1500 frames: one minute at 25 frames a second, so the minute holds the stream once.
  check record-x264 0 rr --root "$x" record --channels 2 --from "2024-05-02 08:00" --minutes 1 \
    --input "$dir/src.264" --no-audio
  md5s() { ffmpeg -v error -i "$1" -f framemd5 - | grep -v '^#' | cut -d, -f6; }
  md5s "$dir/src.264" >"$dir/src.md5"
  check extract 0 rr --root "$x" play --at "2024-05-02 08:00" --extract 1 "$dir/ch1.h264"
  has extract out "wrote 1500 frames"
  md5s "$dir/ch1.h264" | cmp -s - "$dir/src.md5" || bad "extract: decoded frames differ from the source"
  check extract-to 0 rr --root "$x" play --at "2024-05-02 08:00" --extract 0 "$dir/ch0.h264" \
    --to "2024-05-02 08:00:30"
  md5s "$dir/ch0.h264" | cmp -s - <(head -750 "$dir/src.md5") || bad "extract --to: not the first 30 s"
  check extract-none 1 rr --root "$x" play --at "2024-05-02 08:00" --extract 5 "$dir/ch5.h264"
  has extract-none err "channel 5 has no main-stream key frame"
else
  echo "read_tool: ffmpeg missing, --extract not checked"
fi

finish
