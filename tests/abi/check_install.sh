#!/bin/bash
# Installs the built tree into a folder and builds and runs a C and a C++ program against that, found by pkg-config and by
# find_package: check_install.sh BUILD_FOLDER CC CXX. Runs in the lab.
set -eu -o pipefail
build=$1 cc=$2 cxx=$3
consumer=$(cd "$(dirname "$0")/consumer" && pwd)
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null # and the profiles below /usr/zevo, which is the lab's own
libdir=$(dirname "$(find "$work/prefix" -name libzevotuned.so)")

expect="performance_throughput
performance_latency"
check() {
	local names
	names=$(LD_LIBRARY_PATH=$libdir "$1")
	[ "$names" = "$expect" ] || {
		printf '%s printed:\n%s\n' "$1" "$names" >&2
		exit 1
	}
}

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046 # one word an option
"$cc" -std=c11 "$consumer/select.c" -o "$work/select_c" $(pkg-config --cflags --libs libzevotuned)
# shellcheck disable=SC2046
"$cxx" -std=c++17 "$consumer/list.cpp" -o "$work/list_cpp" $(pkg-config --cflags --libs libzevotuned)
check "$work/select_c"
check "$work/list_cpp"

cmake -S "$consumer" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$cc" \
	-DCMAKE_CXX_COMPILER="$cxx" >/dev/null
cmake --build "$work/build" >/dev/null
check "$work/build/select_c"
check "$work/build/list_cpp"

# The installed tool finds its libraries, and what it needs is all there.
LD_LIBRARY_PATH=$libdir "$work/prefix/bin/zevotune" list | grep -q performance_latency
