#!/usr/bin/env bash
# ringrec export driven as a user drives it: bad input gets a message and status 2 (usage)
# or 1 (failure); good input writes the planned files and reports progress in 10 % lines
# when standard error is not a terminal.
# Usage: export_cli_test.sh RINGREC [EMULATOR...]
. "$(dirname "$0")/../tools/cli_kit.sh" export_cli "$@"

b=$dir/board
o=$dir/o
mkdir -p "$o"
check sim-create 0 rr sim create "$b" --disks 1 --size 256M
check format 0 rr --root "$b" format sda
check record 0 rr --root "$b" record --channels 2 --from "2024-03-01 10:59:30" --minutes 2 \
  --fps 5 --main-kbps 64 --sub-kbps 16
span=(--from "2024-03-01 10:59:40" --to "2024-03-01 11:00:50")

check no-dir 1 rr --root "$b" export "${span[@]}" --ch 0 "$dir/missing"
has no-dir err "does not exist"
check bad-channel 2 rr --root "$b" export "${span[@]}" --ch 32 "$o"
has bad-channel err "--ch"
check backwards 2 rr --root "$b" export --from "2024-03-01 11:00" --to "2024-03-01 10:00" --ch 0 "$o"
has backwards err "before --from"
check no-from 2 rr --root "$b" export --to "2024-03-01 11:00" --ch 0 "$o"
check bad-format 2 rr --root "$b" export "${span[@]}" --ch 0 --format avi "$o"
check empty-range 1 rr --root "$b" export --from "2024-03-02 10:00" --to "2024-03-02 11:00" --ch 0 "$o"
has empty-range err "nothing recorded"

# Two hours touched: one planned file per hour and channel, progress in 10 % steps.
check two-phase 0 rr --root "$b" export "${span[@]}" --ch 0,1 "$o"
has two-phase out "20240301_10h59m40s_ch01_1920x1080x5.m4v 0 "
has two-phase out "20240301_11h00m00s_ch02_1920x1080x5.m4v 1 "
has two-phase err "export: 100%"
has two-phase err "exported 4 file(s)"
[ "$(ls "$o" | wc -l)" = 4 ] || bad "two-phase: $(ls "$o")"
if grep -q "PROGRESS" "$dir/err"; then bad "quiet: library lines without -v"; fi
check verbose 0 rr -v --root "$b" export "${span[@]}" --ch 0 "$dir"
has verbose err "bk_phase_one"
rm -f "$dir"/*.m4v

# A disk pulled from a recorder: the image named in place of a board gives the same plan.
rm -f "$o"/*
check image 0 rr export "$b/dev/sda" "${span[@]}" --ch 0 "$o"
has image out "20240301_10h59m40s_ch01_1920x1080x5.m4v 0 "
has image err "exported 2 file(s)"
check image-none 1 rr export "$dir/out" "${span[@]}" --ch 0 "$o"
has image-none err "no readable volume"

# Single pass runs on across the hour: one file.
rm -f "$o"/*
check single 0 rr --root "$b" export "${span[@]}" --ch 1 --single-pass "$o"
has single err "exported 1 file(s)"
# With sound, a file per hour, each with a sound track.
rm -f "$o"/*
check single-audio 0 rr --root "$b" export "${span[@]}" --ch 1 --single-pass --audio "$o"
has single-audio err "exported 2 file(s)"
if command -v ffprobe >/dev/null 2>&1; then
  for f in "$o"/*.m4v; do
    [ "$(ffprobe -v error -show_entries stream=codec_name -of csv=p=0 "$f" | tr '\n' ,)" = "h264,pcm_s16le," ] ||
      bad "single-audio: $f has no sound track"
  done
fi
check substream 0 rr --root "$b" export "${span[@]}" --ch 1 --substream "$o"
has substream out "_ch02_704x576x5.m4v"
check substream-single 2 rr --root "$b" export "${span[@]}" --ch 1 --substream --single-pass "$o"

# IRF: one file per hour that the ringrec irf reader accepts; OEM: one file per minute.
rm -f "$o"/*
check irf 0 rr --root "$b" export "${span[@]}" --ch 0,1 --format irf "$o"
has irf out "20240301_10h59m40s.irf"
has irf out "20240301_11h00m00s.irf"
check irf-read 0 rr irf "$o/20240301_10h59m40s.irf"
has irf-read out "channel 1:"
[ -e "$b/tmp/header.irf" ] && bad "irf: the header the tool made was left behind"
rm -f "$o"/*
check oem 0 rr --root "$b" export "${span[@]}" --ch 0 --format oem "$o"
[ "$(ls "$o" | wc -l)" = 2 ] || bad "oem: $(ls "$o")"
check oem-flags 2 rr --root "$b" export "${span[@]}" --ch 0 --format oem --single-pass "$o"

# A USB stick that fills: the file-size limit (64 KiB, with the signal that would kill the
# tool ignored, so writes fail with EFBIG) stands in for a full disk. Every way stops
# with status 1, says so, removes the unfinished file and posts no completion.
full() {  # full NAME ARGS...: the export under the limit
  local name=$1; shift
  rm -rf "$o" && mkdir -p "$o"
  (trap '' XFSZ; ulimit -f 64; exec $emu "$rr_bin" --root "$b" export "${span[@]}" "$@" "$o") \
    >"$dir/out" 2>"$dir/err"
  equal "$name-status" "$?" 1
  has "$name" err "failed (is the disk full?); the unfinished file was removed"
  lacks "$name" err "export: 100%"
  equal "$name-left" "$(ls -A "$o")" ""
}
full full-two-phase --ch 1
full full-single --ch 1 --single-pass
full full-oem --ch 1 --format oem

finish
