#!/bin/bash
# Runs what the daily timer runs, on Btrfs volumes of the real kernel: rescan_test.sh SCRIPT ZEVOTUNE, inside of
# tests/lab/enter. The pin tool is a script that fails for the volumes that it is told. Exit status 77 is a skip.
set -eu
script=$1 zevotune=$2

if [ ! -e /run/zevotuned-lab ]; then
	echo "rescan_test: run this with tests/lab/enter, or it changes this machine" >&2
	exit 1
fi
if grep -q ' - btrfs ' /proc/self/mountinfo; then
	echo "rescan_test: skipped: this machine has Btrfs volumes mounted, and they would be looked at" >&2
	exit 77
fi
work=$(mktemp -d)
mounted=() loops=()
clean_up() {
	[ ${#mounted[@]} = 0 ] || umount "${mounted[@]}"
	[ ${#loops[@]} = 0 ] || losetup --detach "${loops[@]}"
	rm -r "$work" /run/pin-tool
}
trap clean_up EXIT

fail() {
	echo "rescan_test: $*" >&2
	cat "$work/out" "$work/err" "$work/calls" >&2 || true
	exit 1
}

# The tool, which also writes down what it is asked for.
mkdir "$work/bin" /run/pin-tool
cat >"$work/bin/zevotune" <<END
#!/bin/sh
echo "\$*" >>"$work/calls"
exec "$zevotune" "\$@"
END
mkdir -p /usr/zevo/etc /usr/zevo/sbin
cat >/usr/zevo/sbin/zevocachepinfiletool <<'END'
#!/bin/sh
echo "$1 $3" >>/run/pin-tool/lines
! grep -qxF "$3" /run/pin-tool/broken
END
chmod 755 "$work/bin/zevotune" /usr/zevo/sbin/zevocachepinfiletool
: >/run/pin-tool/broken
: >/usr/zevo/etc/flash_cache.conf

# Runs the script, and expects its exit status and standard output, and how often it looks at a volume and rescans
# one.
runs() {
	local status=0 looks rescans
	: >"$work/calls"
	PATH=$work/bin:$PATH "$script" >"$work/out" 2>"$work/err" || status=$?
	[ "$status" = "$1" ] || fail "exit status $status, not $1"
	printf '%s' "$2" | cmp -s - "$work/out" || fail "another output than '$2'"
	looks=$(grep -c '^cache status' "$work/calls" || true)
	rescans=$(grep -c '^cache rescan' "$work/calls" || true)
	[ "$looks $rescans" = "$3 $4" ] || fail "$looks looks and $rescans rescans, not $3 and $4"
}
says() {
	grep -qF "$1" "$work/err" || fail "standard error lacks '$1'"
}
is_silent() {
	[ ! -s "$work/err" ] || fail "standard error is not empty"
}

runs 0 '' 0 0
is_silent

volume() {
	local loop
	truncate -s 256M "$work/image.$1"
	loop=$(losetup --find --show "$work/image.$1")
	loops+=("$loop")
	mkfs.btrfs --quiet --nodiscard "$loop" >/dev/null 2>&1
	mkdir "$work/$1"
	# Rare commits, as each has the kernel look for chunks that it can give back while they are empty.
	mount -o metadata_ratio=1,commit=300 "$loop" "$work/$1"
	mounted=("$work/$1" "${mounted[@]}")
}
device() {
	findmnt --noheadings --output SOURCE --mountpoint "$work/$1"
}
# Mounted in this order, which is that of the script.
for name in broken "of two names" never hidden; do
	volume "$name"
done
mkdir "$work/again"
mount --bind "$work/of two names" "$work/again"
mount -t tmpfs over-it "$work/hidden"
mounted=("$work/again" "$work/hidden" "${mounted[@]}")

# The attribute of an appliance's kernel, in a /sys that has these volumes.
layers=/run/pin-tool/layers
mkdir $layers
mount -t tmpfs layers $layers
mkdir $layers/upper $layers/work
mount -t overlay -o lowerdir=/run/lab/kernel-sys,upperdir=$layers/upper,workdir=$layers/work sys /sys
mounted=(/sys "$layers" "${mounted[@]}")
for name in broken "of two names"; do
	uuid=$(blkid --probe --output value --match-tag UUID "$(device "$name")")
	echo 0 >"/sys/fs/btrfs/$uuid/metadata_cache_enable"
	cat >>/usr/zevo/etc/flash_cache.conf <<-END
		[$uuid]
		device = $(device "$name")
		id = ssd_1
		mode = 4
		flags = 0x6
		size = 256000000000
		reference = cache-$uuid
	END
	"$zevotune" cache on "$work/$name" >/dev/null
done

# Until a volume has metadata that is not pinned.
grow() {
	local i
	for i in {1..20}; do
		fallocate --length 8M "$work/$1/data$i.$RANDOM"
		touch "$work/$1/file$i.$RANDOM"
		sync --file-system "$work/$1"
		! "$zevotune" cache status "$work/$1" | grep -q '^not pinned:' || return 0
	done
	fail "no chunk of metadata has come"
}
is_pinned() {
	! "$zevotune" cache status "$work/$1" | grep -q '^not pinned:'
}

two=$(printf %q "$work/of two names")
both="rescanned $work/broken
rescanned $two
"
# Nothing new, and then something.
: >/run/pin-tool/lines
runs 0 "$both" 3 2
is_silent
[ ! -s /run/pin-tool/lines ] || fail "the pin tool was run with nothing to pin"
grow "of two names"
runs 0 "$both" 3 2
is_silent
is_pinned "of two names" || fail "what is new is not pinned"

# One that fails is no hindrance.
grow broken
grow "of two names"
echo "$work/broken" >/run/pin-tool/broken
runs 1 "rescanned $two
" 3 2
says "cannot bring up to date what is pinned of \"$work/broken\""
is_pinned "of two names" || fail "what is new is not pinned behind a volume that fails"
: >/run/pin-tool/broken
runs 0 "$both" 3 2
is_pinned broken || fail "what has failed before is not pinned"

# Nor is one of which cannot be told what is pinned.
mapping=$work/broken/@eaDir/zevo_btrfs_metadata_mapping_config
mv "$mapping" "$mapping.kept"
ln -s "$mapping.kept" "$mapping"
runs 1 "rescanned $two
" 3 1
says "cannot tell how the metadata cache of $work/broken is"
mv "$mapping.kept" "$mapping"

# Switched off is left alone.
for name in broken "of two names"; do
	"$zevotune" cache off "$work/$name" >/dev/null
done
runs 0 '' 3 0
is_silent
echo "rescan_test: passed"
