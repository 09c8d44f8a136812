#!/usr/bin/env bash
# tessel for the tablet's 32-bit ARM, under user-mode emulation: built without a warning, the unit tests, and the one
# static file on the virtual tablet.
#
#   scripts/check_arm.sh [REGEX]
#
# REGEX picks the end-to-end cases, by their names; without it, more than half of them, of every applet. The tablet and
# the tests that run on it are this machine's own, from build/release.
#
# The emulator knows no ioctl of the power driver: what resets the host controller through /dev/bwan cannot succeed.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/setup.sh
. scripts/setup.sh

step() { printf '\n== %s (%d s)\n' "$1" "$SECONDS"; }

suites='Atcmd|Crashdump|DumpByProtocol|DumpFaults|FirmwareUpdate|FullModem|Modules/Mdmctrl|OnPoweredTablet|OnTablet'
suites+='|Operations|System|Update/OtherChips'
cases=${1:-^($suites)[.]}

step "arm: tools"
require_packages "${arm_packages[@]}"

step "arm: build"
build_preset arm

step "arm: unit tests"
ctest --preset arm --no-tests=error -j 4 --timeout 300 >build/arm-tests.log 2>&1 || {
    grep -v ' Passed \|^ *Start ' build/arm-tests.log
    exit 1
}
grep 'tests passed' build/arm-tests.log

step "arm: on the virtual tablet"
build_preset release --target e2e_tests
TESSEL_UNDER_TEST=$PWD/build/arm/tessel ctest --preset release -L e2e -R "$cases" --no-tests=error -j 12 --timeout 300 \
    >build/arm-e2e.log 2>&1 || {
    grep -v ' Passed \|^ *Start ' build/arm-e2e.log
    exit 1
}
grep 'tests passed' build/arm-e2e.log
