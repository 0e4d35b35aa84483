#!/usr/bin/env bash
# Usage: tool_cli_test.sh RINGREC [EMULATOR...]
. "$(dirname "$0")/cli_kit.sh" tool_cli "$@"

b=$dir/board
check sim-create 0 rr sim create "$b" --disks 2 --size 64M --usb sdc
[ -s "$b/dev/sda" ] || [ -f "$b/dev/sda" ] || bad "sim-create: no image"
has partitions-list board/proc/partitions "sdc"

check info-unformatted 1 rr --root "$b" info sda
has info-unformatted err "format sda"

check format 0 rr --root "$b" format sda
has format out "data area 52 MiB"
check info-json 0 rr --root "$b" info sda --json
has info-json out '"mode":"OVWR"'
has info-json out '"data_size":54525952'
has info-json out '"data_free":54525952'
has info-json out '"first":0'

# The library's own lines stay off the terminal unless -v is given.
check check 0 rr --root "$b" check sda
has check out "consistent, 0 hour entries"
grep -q "CHKDSK" "$dir/err" && { bad "check: library lines without -v"; }
check check-verbose 0 rr --root "$b" -v check sda
has check-verbose err "CHKDSK DONE"

check ls 0 rr --root "$b" ls sda
has ls out "0 hours, 0 minutes"

# An image path outside any board works without --root; the disk name does not.
cp --sparse=always "$b/dev/sda" "$dir/copy.img"
check info-image 0 rr info "$dir/copy.img"
has info-image out "mode:      OVWR"
check name-without-board 1 rr info sda

check missing 1 rr info "$dir/nothing.img"
has missing err "no such file"
truncate -s 12M "$dir/small.img"
check too-small 1 rr format "$dir/small.img"
has too-small err "too small"
check usage 2 rr info
has usage err "usage: ringrec info"
check bad-time 2 rr --root "$b" retain 1 --now "2024-02-30 10:00"
has bad-time err "bad --now time"
check unknown 2 rr frobnicate

finish
