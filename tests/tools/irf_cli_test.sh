#!/usr/bin/env bash
# Usage: irf_cli_test.sh RINGREC [EMULATOR...]
# `ringrec irf` on IRF files composed here by a second writer (Python, from the byte
# table): the summary, the record listing, raw extraction byte for byte, MP4 extraction
# checked by ffprobe when ffmpeg is present, and the refusals.
. "$(dirname "$0")/cli_kit.sh" irf_cli "$@"

# An H.264 stream with an access-unit delimiter before every frame, when ffmpeg exists.
es=""
if command -v ffmpeg >/dev/null 2>&1; then
  ffmpeg -v error -f lavfi -i testsrc=size=320x240:rate=10 -frames:v 30 -c:v libx264 \
    -bf 0 -g 10 -x264-params aud=1 -f h264 "$dir/src.h264" && es="$dir/src.h264"
fi

# make_irf OUT RAW_CH0 [ES]: two channels (stored 0 and 1), 30 video frames each with a
# key frame every 10 and one audio frame per video frame; links as the multi-slot writer
# sets them. Writes channel 0's video frames, concatenated, to RAW_CH0.
python3 - "$dir/a.irf" "$dir/ch0.raw" "$es" <<'EOF' || { echo "FAIL: python"; exit 1; }
import struct, sys
out, raw, es = sys.argv[1], sys.argv[2], sys.argv[3]
frames = []
if es:
    data = open(es, 'rb').read()
    aud = b'\x00\x00\x00\x01\x09'
    parts = [p for p in data.split(aud) if p]
    frames = [aud + p for p in parts]
else:
    for i in range(30):
        nal = b'\x65' if i % 10 == 0 else b'\x41'
        frames.append(b'\x00\x00\x00\x01' + nal + bytes((i * 7 + k) % 251 + 1 for k in range(200 + i)))
def rec(kind, ch, n, link, w2=0, w3=0, w4=0, w5=0, w6=0):
    r = bytearray(64)
    struct.pack_into('<I', r, 16, n)
    struct.pack_into('<II', r, 28, w2, w3)
    struct.pack_into('<II', r, 36, kind, ch)
    struct.pack_into('<iIII', r, 48, link, w5, w6, w4)
    return b'\xe4\xf6\x4e\x03' + bytes(r)
f = bytearray(b'TOLVEX\x00\x00' + bytes(4088))
last = -1
rawv = bytearray()
for i, fr in enumerate(frames):
    key = i % 10 == 0
    for ch in (0, 1):
        here = len(f)
        f += rec(1 if key else 2, ch, len(fr), last, 320, 240, 10, i, ch) + fr
        if key and ch == 0:
            last = here
        if ch == 0:
            rawv += fr
    a = bytes(80)
    f += rec(3, 0, len(a), last, w5=1, w6=8000) + a
open(out, 'wb').write(f)
open(raw, 'wb').write(rawv)
EOF
size=$(stat -c %s "$dir/a.irf")

check summary 0 rr irf "$dir/a.irf"
has summary out "IRF, $size bytes, 90 frame records"
has summary out "channel 0: 30 video frames (3 key), 30 audio frames"
has summary out "channel 1: 30 video frames (3 key), 0 audio frames"
has summary out "320x240 at 10/s"
if grep -q "back links" "$dir/out"; then
  bad "summary: links reported bad"
fi

check frames 0 rr irf "$dir/a.irf" --frames
[ "$(grep -cE '^ *[0-9]+  (key|video|audio) ' "$dir/out")" = 90 ] || {
  bad "frames: not 90 record lines"; cat "$dir/out"; }
# The first record sits at 4096 with no earlier key frame.
grep -qE '^ +4096  key +0 .* -1 ' "$dir/out" || { bad "frames: first record"; head -3 "$dir/out"; }

if command -v python3 >/dev/null; then
  check json 0 rr irf "$dir/a.irf" --frames --extract 1 "$dir/j.h264" --json
  python3 - "$dir/out" <<'END' || bad "json: not the file's records"
import json, sys
j = json.load(open(sys.argv[1]))
assert j["records"] == 90 and len(j["frames"]) == 90 and j["frames"][0]["offset"] == 4096, j
assert j["raw"]["frames"] == 30 and j["cut_at"] is None, j
END
fi
check extract 0 rr irf "$dir/a.irf" --extract 0 "$dir/x.h264"
cmp -s "$dir/x.h264" "$dir/ch0.raw" || { bad "extract: bytes differ"; }
has extract out "channel 0, 30 frames"

if [ -n "$es" ] && command -v ffprobe >/dev/null 2>&1; then
  check mp4 0 rr irf "$dir/a.irf" --mp4 "$dir/x.mp4" --ch 1
  probe=$(ffprobe -v error -select_streams v:0 -count_frames \
    -show_entries stream=codec_name,width,height,nb_read_frames -of csv=p=0 "$dir/x.mp4")
  [ "$probe" = "h264,320,240,30" ] || { bad "mp4: ffprobe says '$probe'"; }
  ffmpeg -v error -i "$dir/x.mp4" -f null - 2>"$dir/dec" && [ ! -s "$dir/dec" ] ||
    { bad "mp4: decoder errors"; cat "$dir/dec"; }
fi

# Refusals: usage, a missing file, another kind of file, version 1, a cut copy.
check usage 2 rr irf
check usage-ch 2 rr irf "$dir/a.irf" --extract 32 "$dir/y"
has usage-ch err "0 to 31"
check missing 1 rr irf "$dir/none.irf"
has missing err "cannot open"
head -c 100 "$dir/a.irf" >"$dir/short.irf"
check short 1 rr irf "$dir/short.irf"
has short err "not an IRF backup"
printf 'TOLVEX\0\1' | cat - <(tail -c +9 "$dir/a.irf") >"$dir/v1.irf"
check version 1 rr irf "$dir/v1.irf"
head -c $((size - 500)) "$dir/a.irf" >"$dir/cut.irf"
check cut 0 rr irf "$dir/cut.irf"
has cut out "cut short"
check no-channel 1 rr irf "$dir/a.irf" --extract 9 "$dir/y"
has no-channel err "channel 9 has no key frame"

finish
