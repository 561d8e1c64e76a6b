#!/bin/bash
# Compares the interface of a library as gcc built it with the checked-in one: check_abi.sh SOURCE_FOLDER LIBRARY BASELINE.
# ZEVOTUNED_ABI_WRITE=1 writes the baseline anew, for review.
set -eu
source=$1 library=$2 baseline=$3

if [ "${ZEVOTUNED_ABI_WRITE:-}" = 1 ]; then
	abidw --exported-interfaces-only --drop-private-types --no-corpus-path --no-show-locs --no-comp-dir-path \
		--no-elf-needed --headers-dir "$source/include" --headers-dir "$source/platform/include" "$library" |
		sed "s#$source/##" >"$baseline"
fi
# Exit status 0: the same interface; otherwise abidiff says what differs, additions too.
abidiff --drop-private-types --headers-dir2 "$source/include" --headers-dir2 "$source/platform/include" \
	"$baseline" "$library"
