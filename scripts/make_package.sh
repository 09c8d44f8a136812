#!/usr/bin/env bash
# A firmware package of made-up images, for the virtual tablet:
#
#   scripts/make_package.sh [OPTION...] DIR
#
# writes DIR/fwupdate.tar with everything that an update can ask for: flash programmers, partition table, images, Linux
# images, versions, the SKUs it is for, NV update files. Two runs with the same options give the same bytes.
#
#   --chip CHIP      mdm9615, mdm9600 or qsc6270 (mdm9615)
#   --version TEXT   version of the firmware (RIDGE_02_05_08)
#   --apps TEXT      version of the modem's Linux side (VA2)
#   --sku LIST       SKUs, with commas (ALL)
#   --seed N         which bytes the images have (1)
#   --size BYTES     of the largest image (65536)
#   --without FILE   leave a member out; may be given many times
#   --keep           leave the members in DIR/members, too
set -euo pipefail

usage() {
    sed -n '2,/^set/{/^set/d;s/^# \{0,1\}//;p}' "$0" >&2
    exit 2
}

chip=mdm9615 version=RIDGE_02_05_08 apps=VA2 sku=ALL seed=1 size=65536 without=() keep=
while [ $# -gt 1 ]; do
    case $1 in
    --chip) chip=$2 ;;
    --version) version=$2 ;;
    --apps) apps=$2 ;;
    --sku) sku=$2 ;;
    --seed) seed=$2 ;;
    --size) size=$2 ;;
    --without) without+=("$2") ;;
    --keep)
        keep=1
        shift
        continue
        ;;
    *) usage ;;
    esac
    shift 2
done
[[ $# = 1 && $1 != -* ]] || usage
directory=$1

# Per chip: its programmer, where that is loaded, the image that says the firmware's version, the other images.
case $chip in
mdm9615) programmer=NPRG9x15.hex upper=2A00 main=dsp1.mbn images=(sbl1 sbl2 rpm dsp2 appsboot) ;;
mdm9600) programmer=NPRG9x00.hex upper=002A main=amss.mbn images=(dbl fsbl osbl dsp1 dsp2) ;;
qsc6270) programmer=NPRG6270.hex upper=002A main=amss.mbn images=(dbl fsbl osbl) ;;
*) usage ;;
esac

members=$directory/members
mkdir -p "$directory"
rm -rf "$members"
mkdir "$members"

# NAME BYTES [FIRST_LINE]: one more image to write. Its lines differ from each other, from image to image and from seed to
# seed. They hold characters that frames escape, zeros, and bytes that are negative where a character has a sign.
names=() beginnings=() rests=()
image() {
    local beginning=${3:+$3$'\n'}
    names+=("$1") beginnings+=("$beginning") rests+=($(($2 - ${#beginning})))
}

# All of them in one go, since a test of an update begins with this.
write_images() {
    local i
    for i in "${!names[@]}"; do
        echo "${names[i]} ${rests[i]}"
    done | awk -v seed="$seed" '{
        for (at = 0; at < $2; at += 32)
            printf "%s", substr(sprintf("%-15.15s~}%6d %07x\n", $1, seed, at), 1, $2 - at)
    }' | LC_ALL=C tr 'abcdef' '\000\200\377\001\215\032' | for i in "${!names[@]}"; do
        {
            printf '%s' "${beginnings[i]}"
            head -c "${rests[i]}"
        } >"$members/${names[i]}"
    done
}

# NAME MARK: a programmer of 5000 bytes that begins with the mark, in records of 32 and of 16 bytes.
programmer() {
    {
        printf '%s\n' "$2"
        awk -v seed="$seed" 'BEGIN { for (at = 0; at < 5000; at += 16) printf "%7d%8x\n", seed, at }'
    } >"$members/$1"
    truncate -s 5000 "$members/$1"
    od -An -v -tx1 -w32 "$members/$1" | awk -v upper="$upper" '
        function value(hex,    i, number) {
            for (i = 1; i <= length(hex); ++i)
                number = 16 * number + index("0123456789ABCDEF", substr(hex, i, 1)) - 1
            return number
        }
        function record(hex,    i, sum) {
            for (i = 1; i <= length(hex); i += 2)
                sum += value(substr(hex, i, 2))
            printf ":%s%02X\r\n", hex, (256 - sum % 256) % 256
        }
        function data(from, count,    i, hex) {
            for (i = from; i < from + count; ++i)
                hex = hex toupper($i)
            record(sprintf("%02X%04X00%s", count, at, hex))
            at += count
        }
        BEGIN { record("02000004" upper) }
        NR % 2 && NF == 32 { data(1, 16); data(17, 16); next }
        { data(1, NF) }
        END {
            record("04000005" upper "0000")
            record("00000001")
        }' >"$members/$1.new"
    mv "$members/$1.new" "$members/$1"
}

programmer "$programmer" "NPRG of $chip"
programmer "E$programmer" "ENPRG of $chip"
# Magic numbers, version, number of partitions.
printf '\xAA\x73\xEE\x55\xDB\xBD\x5E\xE3\x03\x00\x00\x00\x0A\x00\x00\x00' >"$members/partition.mbn"
printf 'partitions of seed %s for %s\n' "$seed" "$chip" >>"$members/partition.mbn"

image "$main" "$size" "version $version"
small=$((size / 16 + 1000))
for name in "${images[@]}"; do
    image "$name.mbn" "$((small += 777))"
done
image boot-oe-msm9615.img "$((small + 1024))"
image 9615-cdp-image-9615-cdp.yaffs2 "$((small + 4096))" "version $apps"
image 9615-cdp-usr-image.usrfs.yaffs2 "$((small + 2048))"
write_images

printf '%s\r\n"%s"\r\n' "$version" "$apps" >"$members/fwversion.txt"
printf '# the SKUs that this is for\nSKU=%s\n' "$sku" >"$members/ota_conf.txt"
printf '# of pre-production units\nNV ITEM=10, INDEX=0\n04 00\n' >"$members/nvitems.txt"
printf '# of all units\nNV ITEM FILE=/nv/item_files/modem/mmode/ue_usage_setting, SIZE=1\n01\n' >"$members/nvitems_all.txt"

for name in "${without[@]}"; do
    rm -f "$members/$name"
done
(
    cd "$members"
    # An entry for a directory would end the list of members.
    tar --format=ustar --sort=name --owner=0 --group=0 --mode=0644 --mtime=@0 -cf ../fwupdate.tar -- *
)
[ -n "$keep" ] || rm -rf "$members"
echo "$directory/fwupdate.tar"
