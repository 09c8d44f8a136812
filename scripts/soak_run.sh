# Sourced by ./soak: one run of a job on a virtual tablet, what is looked at afterwards, and the way out of what is not
# whole.
# shellcheck shell=bash

soak=$PWD/build/soak
fixture=$soak/fixture
clean=${clean:-$fixture/clean} # what runs of this tessel are like that go well
tablet=$PWD/build/release/sim/virtual_tablet
results=$soak/results.tsv

# What an update writes by its own NV update files, and -nU.
not_calibration=(-x 00010 -x ue_usage_setting -x rates.conf -x old.conf -x etc)

# A modem with calibration, one that has lost it, a firmware package, an NV update file.
make_fixture() {
    local keep=(/nv/item_files/rfnv/00020085 /nv/item_files/rfnv/00020133 /nv/item_files/rfnv/00022960
        /nv/item_files/mcs/tcxomgr/xo_factory_cal_debug /nv/item_files/modem/mmode/ue_usage_setting)
    local all=$fixture/all file
    mkdir -p "$fixture/efs" "$fixture/none"
    : >"$fixture/none/.types"
    scripts/full_modem.sh scripts/soak_items.txt "$all"
    for file in "${keep[@]}"; do
        mkdir -p "$fixture/efs${file%/*}"
        cp "$all/efs$file" "$fixture/efs$file"
    done
    grep -E " ($(IFS='|' && echo "${keep[*]}"))\$" "$all/efs/.types" >"$fixture/efs/.types" || true
    mv "$all/nv.txt" "$all/wiped.txt" "$fixture"
    rm -r "$all"
    cp -a "$fixture/efs" "$fixture/efs-to-update"
    mkdir "$fixture/efs-to-update/etc"
    echo old >"$fixture/efs-to-update/etc/old.conf"
    {
        printf 'NV ITEM=10, INDEX=0\n04 00\n'
        printf 'NV ITEM FILE=/nv/item_files/modem/mmode/ue_usage_setting, SIZE=1\n01\n'
        printf 'EFS FILE=/etc/rates.conf, SIZE=700\n'
        for ((i = 0; i < 35; i++)); do printf '%02X%02X02030405060708090A0B0C0D0E0F10111213\n' "$i" "$((255 - i))"; done
        printf 'DEL EFS FILE=/etc/old.conf\n'
    } >"$fixture/update.txt"
    scripts/make_package.sh --keep --version RIDGE_02_05_08 --apps VA2 --size 3000 "$fixture/package" >/dev/null
    cp scripts/soak_items.txt "$fixture/items"
}

# What a job is: of which kind, the modem, what tessel is called with, how it may end, after how many seconds at most,
# how often 5 seconds of silence may add to that.
describe() {
    modem=(--modem normal --nv "$fixture/nv.txt" --efs "$fixture/efs") again=(--modem normal)
    kind=backup statuses='0 1 64 69' limit=180
    case $1 in
    crash6 | crash7)
        kind=crash modem=(--modem crashed --protocol "${1#crash}" --regions "9000,4001,100") again=("${modem[@]}")
        call=(crashdump -o) statuses='0 1 4 32 34 69' limit=60
        ;;
    backup | rebackup) call=(wan_dloader -o -nb) file=nvbackup.bin ;;
    golden) call=(wan_dloader -o -ng) file=nvbackup_golden.bin ;;
    renewal) call=(wan_dloader -o -fng) file=nvbackup_golden.bin ;;
    restore)
        kind=restore modem=(--modem normal --nv "$fixture/wiped.txt" --efs "$fixture/none")
        call=(wan_dloader -o -nr)
        ;;
    nvupdate)
        kind=nvupdate modem=(--modem normal --nv "$fixture/nv.txt" --efs "$fixture/efs-to-update")
        call=(wan_dloader -o -nU/data/update.txt) statuses='0 1 32 64 69'
        ;;
    update | whole)
        kind=update statuses='0 1 32 64 69 72 76' limit=400 call=(wan_dloader -o -a -l)
        again+=(--revision RIDGE_02_05_07 --apps VA1)
        if [ "$1" = whole ]; then
            again=(--modem normal --revision RIDGE_01_05_0E --apps VA1) call=(wan_dloader -o -E)
        fi
        modem+=("${again[@]:2}")
        ;;
    *)
        echo "soak: no job $1" >&2
        exit 2
        ;;
    esac
}

# What the job finds on the tablet.
lay_out() {
    mkdir -p "$root/data" "$root/sdcard/firmware"
    case $1 in
    rebackup | restore) cp "$clean/nvbackup.bin" "$root/data" ;;
    renewal) cp "$clean/nvbackup.bin" "$root/data/nvbackup_golden.bin" ;;
    nvupdate) cp "$fixture/update.txt" "$root/data" ;;
    update | whole) cp "$fixture/package/fwupdate.tar" "$root/sdcard/firmware" ;;
    esac
}

# ---- the tablet ----

plug_in() {
    local answer=''
    # A modem without any file would be taken for a new one.
    [ ! -d "$root/modem/efs" ] || : >>"$root/modem/efs/.types"
    coproc MODEM { exec "$tablet" serve --root "$root" --tessel "$TESSEL" "$@" 2>>"$dir/modem.err"; }
    # shellcheck disable=SC2153 # of the coprocess
    modem_pid=$MODEM_PID modem_in=${MODEM[1]}
    read -r -t 60 answer <&"${MODEM[0]}" || true
    [ "$answer" = ready ]
}

unplug() {
    exec {modem_in}>&-
    wait "$modem_pid" || return
}

# In the tablet: runs tessel, kills it when /sdcard/kill says so, and tells what it left running.
# shellcheck disable=SC2016 # for the shell of the tablet
in_tablet='
"$@" & job=$!
killer=
if [ -p /sdcard/kill ]; then { read -r word </sdcard/kill; kill -9 $job; } & killer=$!; fi
wait $job; status=$?
[ -z "$killer" ] || kill $killer 2>/dev/null
for i in 1 2 3 4 5 6 7 8 9 10; do
    left=$(cat /.proc/[0-9]*/comm 2>/dev/null | grep -vxE "sh|bwrap|cat|grep")
    [ -n "$left" ] || break
    sleep 0.2
done
echo "$left" >/sdcard/left
exit $status'

# NAME WORDS...: a command in the tablet. The status is in $status, what it said in $dir/NAME.out and .err.
in_the_tablet() {
    local name=$1 line seen=0 run
    shift
    timeout -k 5 "$limit" "$tablet" run --root "$root" -- sh -c "$in_tablet" sh "$@" \
        </dev/null >"$dir/$name.out" 2>"$dir/$name.err" &
    run=$!
    if [ -n "$kill_at" ]; then
        while read -r line; do
            # shellcheck disable=SC2053 # a pattern
            if [[ $line == $kill_at ]] && ((++seen == kill_count)); then
                echo now >&"$kill_pipe"
                break
            fi
        done < <(exec tail -n +1 -f --pid=$run "$root/modem/journal.txt" 2>/dev/null)
    fi
    status=0
    wait $run || status=$?
}

# ---- what is looked at ----

# Warnings and errors of an applet, each once.
complaints() { sed -n 's/^radio \([EW]\) [A-Z_]*: */\1 /p' "$1" | sort -u; }

# Where the calibration is: in the modem, or the names of the files in /data that hold all of it.
calibration() {
    local copy places=''
    if diff -rq "${not_calibration[@]}" "$1/nv" "$root/modem/nv" >/dev/null && diff -rq "${not_calibration[@]}" "$1/efs" "$root/modem/efs" >/dev/null; then
        places=modem
    fi
    for copy in "$root"/data/nvbackup*; do
        ! cmp -s "$copy" "$clean/nvbackup.bin" || places+=" ${copy##*/}"
    done
    echo "${places# }"
}

lost_files() {
    { diff -rq "${not_calibration[@]}" "$before" "$root/modem" || true; } |
        sed -nE 's#.*/before/(nv|efs)[/: ]*([^ ]*).*#\2#p' | tr '\n' ' '
}

in_modem() { [[ $(calibration "$before") == modem* ]]; }

# Whether an oem_partition is left depends on where an erasing was cut short: nothing writes it.
same_flash() { diff -rq -x oem_partition "$wanted/flash" "$root/modem/flash" >/dev/null; }

# Whether the work is done, byte for byte.
is_whole() {
    case $kind in
    crash) diff -rq -x crashdump.lst "$root/modem/memory" "$root/sdcard/crashdump" >/dev/null 2>&1 ;;
    backup) cmp -s "$root/data/$file" "$clean/nvbackup.bin" ;;
    *)
        same_flash && diff -rq "$wanted/nv" "$root/modem/nv" >/dev/null && diff -rq "$wanted/efs" "$root/modem/efs" >/dev/null
        ;;
    esac
}

# Regions are whole, absent, or shorter by what was told.
bad_region() {
    local region saved
    for saved in "$root"/sdcard/crashdump/*; do
        region=$root/modem/memory/${saved##*/}
        if [ ! -e "$region" ] || cmp -s "$region" "$saved"; then
            continue
        fi
        if [ "$(stat -c %s "$saved")" -ge "$(stat -c %s "$region")" ] && ! grep -q 'Reply is for address' "$dir/run.err"; then
            echo "${saved##*/}"
        fi
    done
}

find_faults() {
    local new bad
    new=$(comm -13 "$clean/$job/complaints" <(complaints "$dir/run.err") 2>/dev/null || true)
    if [ "$status" = 124 ]; then
        found+=("hangs")
    elif [ "$status" = 137 ] && [ -n "$struck" ]; then
        :
    elif [[ " $statuses " != *" $status "* ]]; then
        found+=("status $status")
    fi
    ! grep -qE 'Sanitizer|runtime error:' "$dir"/*.err || found+=("sanitizer")
    [ -n "$struck" ] || ! grep -q . "$root/sdcard/left" || found+=("left running: $(tr '\n' ' ' <"$root/sdcard/left")")
    if [ "$status" = 0 ] && [ -z "$new" ] && ! is_whole; then
        found+=("not whole, and nothing says so")
    fi
    if [ "$kind" = crash ]; then
        bad=$(bad_region)
        [ -z "$bad" ] || found+=("wrong bytes in $bad")
    fi
    # A copy from before is given up only for one that is whole.
    if [[ $job == re* ]] && [[ $(calibration "$before") != *nvbackup* ]]; then
        found+=("no whole backup any more")
    fi
}

# ---- the way out ----

steps='' step_count=0

# NAME WORDS...: one step, after the modem was switched off and on.
step() {
    steps+=", $1"
    ((++step_count))
    in_the_tablet "out-$step_count" "${@:2}"
    unplug || found+=("tablet broke")
}

tessel_again() { step "$*" tessel wan_dloader -o "$@"; }

# The first of the backups that was not tried yet brings the calibration back.
restore_next() {
    local copy
    for copy in nvbackup.bin nvbackup_golden.bin nvbackup.bin.old nvbackup.bin.old1; do
        if [ ! -e "$root/data/$copy" ] || [[ $tried == *" $copy "* ]]; then
            continue
        fi
        tried+=" $copy "
        case $copy in
        nvbackup.bin) tessel_again -nr ;;
        nvbackup_golden.bin) tessel_again -nG ;;
        *)
            mv "$root/data/$copy" "$root/data/nvbackup.bin"
            tessel_again -nr
            ;;
        esac
        return 0
    done
    return 1
}

# What docs/troubleshooting.md says of an update that broke off, by what the modem shows.
repair_update() {
    local state
    for ((i = 0; i < 8; i++)); do
        plug_in "${again[@]}"
        state=$(grep '^state' "$root/modem/journal.txt" | tail -n 1)
        case $state in
        'state bootrom') tessel_again -f -a -e ;;
        'state fastboot')
            step "fastboot by hand" sh -c 'rm -rf /data/fw && mkdir /data/fw && tar -xf /sdcard/firmware/fwupdate.tar -C /data/fw && cd /data/fw && fastboot flash boot boot-oe-msm9615.img && fastboot flash system 9615-cdp-image-9615-cdp.yaffs2 && fastboot flash userdata 9615-cdp-usr-image.usrfs.yaffs2 && fastboot reboot; rm -r /data/fw'
            ;;
        *)
            if ! same_flash; then
                if diff -rq "$before/flash" "$root/modem/flash" >/dev/null && in_modem; then
                    tessel_again "${call[@]:2}"
                else
                    tessel_again -f -m all -l
                fi
            elif ! in_modem; then
                restore_next || break
            elif ! is_whole && [[ $steps != *nvitem* ]]; then
                tessel_again -m nvitem
            else
                break
            fi
            ;;
        esac
    done
    unplug
    is_whole
}

# Ends with whole work, or with 1.
way_out() {
    kill_at='' limit=600
    rm -f "$root/sdcard/kill"
    case $kind in
    update) repair_update ;;
    *)
        plug_in "${again[@]}"
        step "${call[*]}" tessel "${call[@]}"
        is_whole
        ;;
    esac
}

# ---- one run ----

# JOB FAULT...: one line of the results. Without a fault, what a run is like that goes well is kept.
one_run() {
    local job=$1 faults=("${@:2}") dir root before fault modem_faults=() options=() kill_at='' kill_count=1 kill_pipe
    local found=() verdict=ok struck='' began status tried='' held
    local kind modem again call file statuses limit modem_pid modem_in wanted=$clean/$job
    describe "$job"
    dir=$places/$job-$(printf '%s,' "${faults[@]}" | tr '/:' '..')
    dir=${dir%,} root=$dir/root before=$dir/before
    rm -rf "$dir"
    mkdir -p "$before"
    lay_out "$job"
    for fault in "${faults[@]}"; do
        case $fault in
        kill@*)
            modem_faults+=(--fault "all/silence@${fault#*@}")
            kill_at="fault all/silence@${fault#*@}"
            ;;
        toolkill@*) kill_at='ran *' kill_count=${fault#*@} ;;
        fail=*) modem_faults+=(--fail "${fault#*=}") ;;
        option=*) options+=("${fault#*=}") ;;
        *) modem_faults+=(--fault "all/$fault") ;;
        esac
    done
    if [ -n "$kill_at" ]; then
        mkfifo "$root/sdcard/kill"
        exec {kill_pipe}<>"$root/sdcard/kill"
    fi

    plug_in "${modem[@]}" "${modem_faults[@]}"
    cp -a "$root/modem/nv" "$root/modem/efs" "$root/modem/flash" "$before"
    if [ "$job" = restore ]; then
        wanted=$clean/backup
        cp -a "$wanted/nv" "$wanted/efs" "$before"
    fi
    began=$EPOCHREALTIME
    in_the_tablet run tessel "${call[0]}" "${options[@]}" "${call[@]:1}"
    [ -z "$kill_at" ] || [ "$status" != 137 ] || struck=1
    unplug || found+=("tablet broke")
    local seconds=$(((${EPOCHREALTIME/./} - ${began/./}) / 1000000))
    if [ ${#faults[@]} = 0 ]; then
        keep_clean
        return
    fi

    find_faults
    local ended=$status
    held=$(calibration "$before")
    if [ ${#found[@]} = 0 ] && ! is_whole; then
        if way_out; then
            verdict="ok, then ${steps#, }"
        elif [ "$kind" != update ] || [ -n "$held" ] || in_modem; then
            found+=("the way out leads nowhere: ${steps#, }")
        else
            verdict="lost: $(lost_files)after ${steps#, }"
        fi
        ! grep -qE 'Sanitizer|runtime error:' "$dir"/*.err || found+=("sanitizer")
    fi
    [ ${#found[@]} = 0 ] || verdict="FOUND $(printf '%s; ' "${found[@]}")"
    # A machine that lets the modem wait for seconds proves nothing.
    ! grep -q 'too busy' "$dir/modem.err" || verdict+=" (busy machine)"
    report
}

keep_clean() {
    local kept=$clean/$job journal=$root/modem/journal.txt
    if [ "$job" = backup ]; then
        cp "$root/data/nvbackup.bin" "$clean"
    fi
    if [ "$status" = 0 ] && { [ "$kind" != crash ] || is_whole; } && in_modem &&
        { [ "$kind" != backup ] || is_whole; } && { [ "$kind" != update ] || is_package; }; then
        mkdir -p "$kept"
        cp -a "$root/modem/nv" "$root/modem/efs" "$root/modem/flash" "$kept"
        complaints "$dir/run.err" >"$kept/complaints"
        grep -c '^ran ' "$journal" >"$kept/tools" || true
        # Replies so far, where a request differs in its first byte from the one before, or the modem or a tool tells of
        # something. Blocks of images have no line each.
        awk -v total="$kept/count" '
            /^request ttyUSB0/ { n++; if ($4 != last) { print n - 1; print n } last = $4 }
            match($0, /^flash .* in [0-9]+ blocks/) { n += $(NF - 1) }
            /^(state|ran|flash)/ { print n; print n + 1 }
            END { print n >total }' "$journal" | sort -nu >"$kept/boundaries"
        reported=1
        rm -rf "$dir"
    else
        local ended=$status
        verdict="FOUND a run without faults is not whole, status $status"
        report
    fi
}

is_package() {
    local flash=$root/modem/flash member
    for member in mibib:partition.mbn sbl1:sbl1.mbn sbl2:sbl2.mbn rpm:rpm.mbn dsp1:dsp1.mbn dsp2:dsp2.mbn \
        aboot:appsboot.mbn boot:boot-oe-msm9615.img system:9615-cdp-image-9615-cdp.yaffs2 \
        userdata:9615-cdp-usr-image.usrfs.yaffs2; do
        cmp -s "$flash/${member%:*}" "$fixture/package/members/${member#*:}" || return 1
    done
}

report() {
    local text="${faults[*]}" position=-
    if [[ ${#faults[@]} = 1 && $text =~ ^([a-z-]+)@([0-9]+)$ ]]; then
        text=${BASH_REMATCH[1]} position=${BASH_REMATCH[2]}
    fi
    printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$job" "$text" "$position" "$ended" "$seconds" "$verdict" >>"$results"
    # shellcheck disable=SC2034 # for ./soak
    reported=1
    if [[ $verdict == FOUND* || -n ${keep:-} ]]; then
        echo "$job ${faults[*]}: status $ended, $verdict" >&2
        mkdir -p "$soak/failed"
        rm -rf "$soak/failed/${dir##*/}"
        cp -a "$dir" "$soak/failed/" 2>/dev/null || true
        echo "see $soak/failed/${dir##*/}" >&2
    fi
    rm -rf "$dir"
}
