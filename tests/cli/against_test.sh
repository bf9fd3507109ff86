#!/usr/bin/env bash
# Changes one byte of a dataset at a time. verify must find each change, alone or with --against the source. Covers
# every byte of a record, of its coefficients and of the index, in the first, a middle and the last record.
#
#   PLYCONVERT_PATH=... against_test.sh
set -u
# shellcheck source=tests/cli/lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
enter_scratch

ply in.ply 62 50
plyconvert --quiet in.ply sound || exit 1
tried=0

# changed FILE OFFSET: inverts bits 1 and 6 of one byte and runs verify.
changed() {
    local file=$1 offset=$2 byte status
    byte=$(od -An -tu1 -j "$offset" -N 1 "sound/$file")
    cp "sound/$file" "broken/$file"
    # shellcheck disable=SC2059
    printf "\\x$(printf %x $((byte ^ 0x42)))" |
        dd of="broken/$file" bs=1 seek="$offset" conv=notrunc status=none
    plyconvert verify --quiet --against in.ply broken >printed 2>&1
    status=$?
    tried=$((tried + 1))
    if [[ $status != 6 ]] || ! grep -q '^plyconvert: error: broken: verification failed' printed; then
        echo "FAILED: byte $offset of $file changed: status $status, $(cat printed)"
        failures=$((failures + 1))
    fi
    cp "sound/$file" "broken/$file"
}

cp -r sound broken
for record in 0 27 49; do
    for byte in {0..31}; do
        changed data.bin $((32 * record + byte))
    done
    for byte in {0..63}; do
        changed shcoef.bin $((64 * record + byte))
    done
done
for byte in {0..19}; do
    changed index.bin "$byte"
done

echo "$tried changes, $failures not found"
((failures == 0))
