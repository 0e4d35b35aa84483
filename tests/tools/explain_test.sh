#!/usr/bin/env bash
# The tool explains itself: help for every command, bad values named, damage named and
# never silent, questions before changing an image, JSON that parses.
# Usage: explain_test.sh RINGREC [EMULATOR...]
. "$(dirname "$0")/cli_kit.sh" explain "$@"

for c in format info check ls disks mode retain record search play timeline export irf mp4 \
  "sim create"; do
  # shellcheck disable=SC2086
  check "help-$c" 0 rr $c --help
  has "help-$c" out "usage: ringrec $c"
done
check sim-alone 2 rr sim
has sim-alone err "sim create"
check bad-at 2 rr play --at 2026-01-01
has bad-at err "bad --at"

b=$dir/board
rr sim create "$b" --disks 1 --size 256M >/dev/null && rr --root "$b" format sda >/dev/null &&
  rr --root "$b" record --channels 2 --from "2024-05-01 10:58" --minutes 3 --main-kbps 1000 \
    --sub-kbps 100 --no-audio >/dev/null || { echo "FAIL: no recording"; exit 1; }
img=$dir/a-long-name-for-an-image.img
cp --sparse=always "$b/dev/sda" "$img"
span=(--from "2024-05-01 10:59:00" --to "2024-05-01 10:59:59")

# Labels are the names as given; one image given twice is refused.
check label 0 rr search "$img"
has label out "$img:"
check twice-named 2 rr search "$img" "$dir/./a-long-name-for-an-image.img"
has twice-named err "named twice"

# JSON of every reporting command parses, with a path that needs escaping.
q=$dir/'q"uote.img'
cp --sparse=always "$img" "$q"
json_ok() {  # json_ok NAME ARGS...: the output is one JSON value
  check "$1" "$2" "${@:3}"
  python3 -c 'import json,sys; json.load(open(sys.argv[1]))' "$dir/out" || bad "$1: not JSON"
}
if command -v python3 >/dev/null; then
  json_ok json-info 0 rr info "$q" --json
  has json-info out '"device":"'"$dir"'/q\"uote.img"'
  json_ok json-ls 0 rr ls "$q" --json
  json_ok json-check 0 rr check "$q" --dry-run --json
  json_ok json-disks 0 rr --root "$b" disks --json
  json_ok json-search 0 rr search "$q" --json
  json_ok json-play 0 rr play "$q" --at "2024-05-01 10:59" --count 3 --json
  mkdir "$dir/j"
  json_ok json-export 0 rr export "$q" "${span[@]}" --ch 0 --json "$dir/j"
fi

# A damaged root table is named by info and search.
cp --sparse=always "$img" "$dir/root.img"
dd if=/dev/zero of="$dir/root.img" bs=16 count=1 seek=$((0x400000 / 16)) conv=notrunc 2>/dev/null
check root-info 1 rr info "$dir/root.img"
has root-info err "root table (the index of recorded hours) is damaged"
check root-search 1 rr search "$dir/root.img"
has root-search err "is damaged"
# The first superblock damaged: opened from the second, and said.
cp --sparse=always "$img" "$dir/sb.img"
dd if=/dev/zero of="$dir/sb.img" bs=36 count=1 conv=notrunc 2>/dev/null
check secondary 0 rr info "$dir/sb.img"
has secondary err "opened from its second copy"
# A copy cut short.
cp --sparse=always "$img" "$dir/short.img"
truncate -s 64M "$dir/short.img"
check short 0 rr info "$dir/short.img"
has short err "shorter than its volume"

# check: a dry run changes nothing; an image is repaired in place only with --yes.
cp --sparse=always "$img" "$dir/fix.img"
printf 'X' | dd of="$dir/fix.img" bs=1 seek=$((0x400010 + 100)) conv=notrunc 2>/dev/null
sum=$(md5sum <"$dir/fix.img")
check dry-run 0 rr check "$dir/fix.img" --dry-run
has dry-run out "would repair: 1 of 2 hour entries kept"
check no-yes 1 rr check "$dir/fix.img" </dev/null
has no-yes err "--yes"
equal unchanged "$(md5sum <"$dir/fix.img")" "$sum"
check yes 0 rr check "$dir/fix.img" --yes
has yes out "repaired: 1 of 2 hour entries kept"

# Stored blocks that cannot be read: export and play name the span and exit 1; play
# resumes at the next key frame of the same minute.
cp --sparse=always "$img" "$dir/block.img"
rr ls "$dir/block.img" --json >"$dir/ls.json"
rr play "$dir/block.img" --at "2024-05-01 10:59:20" --count 1 --json >"$dir/p.json"
at=$(python3 -c '
import json, sys
ls, p = json.load(open(sys.argv[1])), json.load(open(sys.argv[2]))["blocks"][0]
m = [m for h in ls["hour_entries"] for m in h["minutes"] if m["name"] == p["minute"]][0]
print(m["region"] + p["offset"])' "$dir/ls.json" "$dir/p.json")
dd if=/dev/zero of="$dir/block.img" bs=288 count=1 seek="$at" oflag=seek_bytes conv=notrunc 2>/dev/null
mkdir "$dir/e"
check gap-export 1 rr export "$dir/block.img" "${span[@]}" --ch 0 "$dir/e"
has gap-export err "could not be read, 10:59:19 to 10:59:59"
check gap-play 1 rr play "$dir/block.img" --at "2024-05-01 10:59:19" --count 30
has gap-play err "could not be read"
has gap-play out "2024-05-01 10:59:21"

# export: files of the same name stay unless --force; --audio is for --single-pass; a
# channel that holds nothing is named.
mkdir "$dir/o"
check export 0 rr export "$img" "${span[@]}" --ch 0,5 "$dir/o"
has export err "channel 5 holds nothing"
check overwrite 1 rr export "$img" "${span[@]}" --ch 0 "$dir/o"
has overwrite err "--force"
check force 0 rr export "$img" "${span[@]}" --ch 0 --force "$dir/o"
check audio-two-phase 2 rr export "$img" "${span[@]}" --ch 0 --audio "$dir/o"

# A minute recorded twice (the clock set back) is marked and warned of.
rr --root "$b" record --channels 2 --from "2024-05-01 10:58" --minutes 1 --main-kbps 1000 \
  --sub-kbps 100 --no-audio >/dev/null
check twice-ls 0 rr --root "$b" ls sda
has twice-ls out "(minute recorded twice)"
check twice-search 0 rr --root "$b" search
has twice-search out "2024-05-01 10:58 recorded twice"
rm -f "$dir"/o/*
check twice-export 0 rr --root "$b" export --from "2024-05-01 10:58" --to "2024-05-01 10:58:59" \
  --ch 0 "$dir/o"
has twice-export err "was recorded twice"

finish
