# Sourced by ./fuzz, and for replay_fuzz by whoever runs the tests: building and running the fuzz targets.
# shellcheck shell=bash

fuzz_build=$PWD/build/fuzz # corpora and logs, too
fuzz_tests=$PWD/tests/fuzz # seeds and findings, a directory a target

# The names of the targets.
fuzz_targets() {
    local source
    for source in "$fuzz_tests"/*_fuzz.cpp; do
        source=${source##*/}
        echo "${source%_fuzz.cpp}"
    done
}

# run_fuzz_target NAME CORPUS OPTION...: feeds a target with the seeds, what was found once, and what the options of the
# fuzzer ask for. What it says goes to the log NAME.log; what it finds goes to the findings. For a process of its own,
# which becomes the target: whoever kills it leaves none behind.
run_fuzz_target() {
    local name=$1 corpus=$2
    shift 2
    local findings=$fuzz_tests/findings/$name
    mkdir -p "$corpus" "$findings"
    exec "$fuzz_build/tests/fuzz/fuzz_$name" -close_fd_mask=3 -print_final_stats=1 -timeout=20 \
        -artifact_prefix="$findings/" "$@" "$corpus" "$fuzz_tests/seeds/$name" "$findings" >"$fuzz_build/$name.log" 2>&1
}

# run_fuzz_targets CORPORA OPTION...: all targets, two at a time, each with a directory of its own in CORPORA. Fails
# when one of them does, and says why.
run_fuzz_targets() {
    local corpora=$1 name failed=() status=0
    local -A running=() # targets by their processes; the caller may have others
    shift
    finish_one() {
        local pid=
        wait -n -p pid "${!running[@]}" || failed+=("${running[$pid]}")
        unset "running[$pid]"
    }
    for name in $(fuzz_targets); do
        [ ${#running[@]} -lt 2 ] || finish_one
        run_fuzz_target "$name" "$corpora/$name" "$@" &
        running[$!]=$name
    done
    while [ ${#running[@]} -gt 0 ]; do
        finish_one
    done
    for name in "${failed[@]}"; do
        echo "fuzz_$name failed:"
        grep -av '^#\|^INFO\|^stat::' "$fuzz_build/$name.log" | tail -n 40
        status=1
    done
    return $status
}

# replay_fuzz [SECONDS]: every seed and every finding once, then each target for so many seconds (3) on what it makes of
# them. Prints only when something fails.
replay_fuzz() {
    local corpora status=0
    corpora=$(mktemp -d)
    run_fuzz_targets "$corpora/replay" -runs=0 && run_fuzz_targets "$corpora/new" -max_total_time="${1:-3}" || status=1
    rm -rf "$corpora"
    return $status
}

# cover_fuzz: all that is known once, in the build that counts lines. Prints how many of each file's are reached, and
# leaves those that are not in missed.txt there.
cover_fuzz() {
    local corpora=$fuzz_build/corpus name programs=()
    local fuzz_build=$PWD/build/fuzz-coverage
    rm -rf "$fuzz_build/profiles"
    LLVM_PROFILE_FILE=$fuzz_build/profiles/%p run_fuzz_targets "$corpora" -runs=0
    for name in $(fuzz_targets); do
        programs+=(-object "$fuzz_build/tests/fuzz/fuzz_$name")
    done
    llvm-profdata merge -o "$fuzz_build/profile" "$fuzz_build"/profiles/*
    # Each program has functions of its own by the same names, which it complains about: those of the targets, left out.
    local options=("${programs[@]:1}" "-instr-profile=$fuzz_build/profile" '-ignore-filename-regex=/tests/')
    llvm-cov show "${options[@]}" -use-color=false 2>"$fuzz_build/complaints.txt" | awk -F '|' -v top="$PWD/" '
        /^\// { file = substr($0, length(top) + 1, length($0) - length(top) - 1) }
        $2 ~ /^ *0$/ { at = $1 + 0; sub(/^[^|]*\|[^|]*\|/, ""); print file ":" at ":" $0 }' >"$fuzz_build/missed.txt"
    llvm-cov report "${options[@]}" -use-color=false -show-region-summary=0 -show-branch-summary=0 \
        2>"$fuzz_build/complaints.txt"
    echo "Not reached: $fuzz_build/missed.txt"
}
