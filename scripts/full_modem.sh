#!/usr/bin/env bash
# What a modem holds that has everything a backup can ask for, to begin a virtual tablet with:
#
#   scripts/full_modem.sh NV_LIST DIR
#   ./tablet --nv DIR/nv.txt --efs DIR/efs CMD...
#
# DIR/wiped.txt, for --nv too, has the same items with all their bytes zero: what a restore begins with.
#
# NV_LIST (- for standard input) has a row `item size index` a line, as TESSEL_NV_ITEM_LIST does; an item with several
# rows is indexed. The files are those of sim/full_modem.txt. Values differ from row to row and from file to file, and
# are the same in every run. Every eighth NV item is protected by the service programming code.
set -euo pipefail

[ $# = 2 ] || {
    echo "usage: full_modem.sh NV_LIST DIR" >&2
    exit 2
}
files=$(dirname "$(readlink -f "$0")")/../sim/full_modem.txt
[ ! -e "$2/efs" ] || {
    echo "full_modem.sh: $2/efs is already there" >&2
    exit 1
}
mkdir -p "$2/efs"

# A row is written once the next one has told whether its item is indexed.
awk '
function write_row(indexed,    value, i) {
    for (i = 0; i < size - indexed; i++)
        value = value sprintf(" %02X", (item + 31 * place + 7 * i + 1) % 256)
    printf "%d%s:%s%s\n", item, indexed ? "/" place : "", count % 8 ? "" : " spc", value
}
{ sub(/#.*/, "") }
NF {
    again = written && $1 == item
    if (written)
        write_row(several || again)
    several = again
    count += !again
    written = 1
    item = $1 + 0
    size = $2 + 0
    place = $3 + 0
}
END {
    if (written)
        write_row(several)
}' "$1" >"$2/nv.txt"
sed 's/\( [0-9A-F][0-9A-F]\)*$//' "$2/nv.txt" >"$2/wiped.txt"

while read -r type size path; do
    case $type in
    item | regular) ;;
    *) continue ;;
    esac
    mkdir -p "$2/efs${path%/*}"
    # A check sum of the path begins the pattern.
    start=$(cksum <<<"$path")
    start=${start%% *}
    bytes=
    for ((i = 0; i < size; i++)); do
        printf -v byte '\\x%02x' $(((start + 7 * i) % 256))
        bytes+=$byte
    done
    printf %b "$bytes" >"$2/efs$path"
    # What the modem takes a file for by its place needs no row.
    by_place=regular
    [[ $path != /nv/item_files/* ]] || by_place=item
    [ "$type" = $by_place ] || echo "$type $path"
done <"$files" | LC_ALL=C sort -k 2 >"$2/efs/.types.new"
mv "$2/efs/.types.new" "$2/efs/.types"
