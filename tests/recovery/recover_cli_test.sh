#!/usr/bin/env bash
# ringrec recover driven as a user drives it: a recorded disk formatted again is
# reported, exported (the frames decode to the source's) and rebuilt into a volume
# every other command reads; bad input gets a message and status 1, leaves no file.
# Usage: recover_cli_test.sh RINGREC EMULATOR [FRAMECODE]
. "$(dirname "$0")/../tools/cli_kit.sh" recover_cli "$1" "${2:-}"
framecode=${3:-}

b=$dir/board
o=$dir/o
mkdir -p "$o"
check sim-create 0 rr sim create "$b" --disks 1 --size 96M
check format 0 rr --root "$b" format sda
input=()
if command -v ffmpeg >/dev/null 2>&1; then
  # One minute of a real H.264 stream, one key frame a second: the minute recorded
  # from its first second holds exactly these frames.
  ffmpeg -v error -f lavfi -i testsrc=size=176x144:rate=5 -t 60 -c:v libx264 -bf 0 -g 5 \
    -pix_fmt yuv420p -f h264 "$dir/src.264" || bad "ffmpeg could not make the source"
  input=(--input "$dir/src.264")
fi
check record 0 rr --root "$b" record --channels 2 --from "2024-03-01 10:58:00" --minutes 3 \
  --fps 5 --main-kbps 64 --sub-kbps 16 "${input[@]}"
rr --root "$b" ls sda | grep MIN_ >"$dir/before"
[ "$(wc -l <"$dir/before")" = 3 ] || bad "record: $(cat "$dir/before")"

check listed 0 rr --root "$b" recover sda
has listed out "ch  1 sub "
has listed out "listed"
lacks listed out "found by scan only"

# Formatted again: nothing listed, everything found.
check reformat 0 rr --root "$b" format sda
check ls-empty 0 rr --root "$b" ls sda
lacks ls-empty out "MIN_"
check found 0 rr --root "$b" recover sda --json
if command -v python3 >/dev/null 2>&1; then
  got=$(python3 -c 'import json,sys; d=json.load(open(sys.argv[1]))["disks"][0]
print(len(d["spans"]), sum(s["blocks"] for s in d["spans"] if s["ch"]==0 and s["stream"]=="main"),
      d["bytes"]["listed"], all(s["reach"]=="unlisted" for s in d["spans"]))' "$dir/out")
  equal found-json "$got" "4 900 0 True"
fi

# Rebuilt: the same minutes, listed again, and every command works on the image.
check rebuild 0 rr --root "$b" recover sda --rebuild "$dir/new.img"
has rebuild out "rebuilt $dir/new.img: 1800 blocks"
rr ls "$dir/new.img" | grep MIN_ >"$dir/after"
cmp -s "$dir/before" "$dir/after" || bad "rebuild lists: $(diff "$dir/before" "$dir/after")"
check rebuilt-search 0 rr search "$dir/new.img" --from "2024-03-01 10:58" --to "2024-03-01 11:01"
check rebuilt-export 0 rr export "$dir/new.img" --from "2024-03-01 10:58:00" \
  --to "2024-03-01 10:58:59" --ch 0 "$o"
rm -f "$o"/*

check export 0 rr --root "$b" recover sda --export "$o" --from "2024-03-01 10:58:00" \
  --to "2024-03-01 10:58:59" --ch 0,1 --audio
has export out "20240301_10h58m00s_ch01_"
has export out "20240301_10h58m00s_ch02_"
has export out "exported 2 file(s)"
if [ ${#input[@]} -gt 0 ]; then
  frames() { ffmpeg -v error -i "$1" -map 0:v -f framemd5 - | grep -v '^#' | awk -F, '{print $6}'; }
  f=$(ls "$o"/*_ch01_*.m4v)
  [ "$(frames "$f")" = "$(frames "$dir/src.264")" ] || bad "export: decoded frames differ from the source"
  [ "$(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 "$f" | tr '\n' ,)" = "h264,pcm_s16le," ] ||
    bad "export: no sound track in $f"
fi
# The simulator's own H.264 carries a frame code in every picture: recovered from a
# disk formatted again, exported, decoded by ffmpeg, it is channel 1's unbroken run
# from the range's first second.
if [ -n "$framecode" ] && command -v ffmpeg >/dev/null 2>&1; then
  b2=$dir/board2
  check fc-board 0 rr sim create "$b2" --disks 1 --size 256M
  check fc-format 0 rr --root "$b2" format sda
  check fc-record 0 rr --root "$b2" record --channels 2 --from "2026-11-22 10:00:00" --minutes 1
  check fc-reformat 0 rr --root "$b2" format sda
  mkdir -p "$dir/fc"
  check fc-export 0 rr --root "$b2" recover sda --export "$dir/fc" --from "2026-11-22 10:00:10" \
    --to "2026-11-22 10:00:14" --ch 1
  f=$(ls "$dir"/fc/*.m4v)
  equal fc-errors "$(ffmpeg -nostdin -v error -i "$f" -f null - 2>&1 | head -3)" ""
  ffmpeg -nostdin -v error -i "$f" -f rawvideo -pix_fmt gray - >"$dir/gray"
  t10=$(date -u -d "2026-11-22 10:00:10" +%s)
  "$framecode" 1920 1080 1 0 "$((t10 * 1000))" 25 <"$dir/gray" >"$dir/fcout" 2>&1 ||
    bad "fc-code: $(cat "$dir/fcout")"
  has fc-code fcout "125 pictures"
  rm -rf "$b2" "$dir/gray"
fi
cp "$b/dev/sda" "$dir/sda.copy"
cmp -s "$b/dev/sda" "$dir/sda.copy" || bad "copy"

# Usage errors.
check no-disk 2 rr recover
check export-no-ch 2 rr --root "$b" recover sda --export "$o" --from 0 --to 1
check both 2 rr --root "$b" recover sda --export "$o" --rebuild "$dir/x.img" --ch 0 --from 0 --to 1
check bad-size 2 rr --root "$b" recover sda --rebuild "$dir/x.img" --size 1k

# Bad input: status 1, a message, no file left.
mk() {  # mk NAME SIZE_MIB PYTHON_BODY: an image whose data area the body fills (d: bytearray)
  python3 - "$dir/$1.img" "$2" "$3" <<'EOF'
import struct, sys
path, mib, body = sys.argv[1], int(sys.argv[2]), sys.argv[3]
d = bytearray(mib << 20)
ring, end = 0x800000, 0x800000 + ((len(d) - 0xC00000) // 0x400000) * 0x400000
def head(time, size, frames=0, types=0):
    h = bytearray(288)
    struct.pack_into("<7I", h, 0, 0x1234, (time ^ size) & 0xFFFFFFFF, 1, time, 0, 2, size)
    struct.pack_into("<2I", h, 28, frames, types)
    return h
exec(body)
open(path, "wb").write(d)
EOF
}
if command -v python3 >/dev/null 2>&1; then
  python3 -c 'import os,sys; open(sys.argv[1],"wb").write(os.urandom(20<<20))' "$dir/random.img"
  mk short 10 ""
  mk notails 24 "
for p in range(ring, end - 400, 400):
    d[p:p+288] = head(1700000000 + p, 100)
"
  mk pastend 24 "
d[end-300:end-12] = head(1700000000, 1 << 20)
d[end-8:end] = struct.pack('<2I', 0xFFFFEDCB, 1 << 20)
"
  mk framelen 24 "
h = head(1700000000, 44, 1, 2)
struct.pack_into('<i', h, 52, 1)
f = bytearray(44); struct.pack_into('<I', f, 40, 0x7FFFFFF0)
d[ring:ring+340] = h + f + struct.pack('<2I', 0xFFFFEDCB, 44)
"
  for img in random short notails pastend framelen; do
    check "bad-$img" 1 rr recover "$dir/$img.img"
    [ -s "$dir/err" ] || bad "bad-$img: no message"
    lacks "bad-$img" err "Segmentation"
    if [ $img = short ]; then has bad-short err "shorter than"; else has "bad-$img" err "no recordings found"; fi
  done
fi
check missing 1 rr recover "$dir/none.img"

rm -f "$o"/*
ls -A "$o" >"$dir/left"
check export-not-dir 1 rr --root "$b" recover sda --export "$dir/left" --from 0 --to 2000000000 --ch 0
check rebuild-no-dir 1 rr --root "$b" recover sda --rebuild "$dir/missing/x.img"
has rebuild-no-dir err "cannot create"
# A full disk: the file-size limit (with the signal that would kill the tool ignored)
# stands in for it.
(trap '' XFSZ; ulimit -f 64; exec $emu "$rr_bin" --root "$b" recover sda --export "$o" \
  --from 0 --to 2000000000 --ch 0) >"$dir/out" 2>"$dir/err"
equal full-export "$?" 1
has full-export err "is the disk full?"
equal full-export-left "$(ls -A "$o")" ""
(trap '' XFSZ; ulimit -f 64; exec $emu "$rr_bin" --root "$b" recover sda --rebuild "$dir/full.img") \
  >"$dir/out" 2>"$dir/err"
equal full-rebuild "$?" 1
[ -e "$dir/full.img" ] || [ -e "$dir/full.img.part" ] && bad "full-rebuild: a file was left"
# The disks read are never written.
cmp -s "$b/dev/sda" "$dir/sda.copy" || bad "the disk read was changed"
finish
