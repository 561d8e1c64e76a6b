#!/bin/bash
# Builds the Debian packages from a copy of this tree, looks at them with lintian, and lives with them in a clean
# root: installs them, uses what they bring as programs and administrators do, removes and purges them, and proves
# that nothing is left.
#
# The clean root is an overlay over the machine's own, in the namespaces of tests/lab/enter: whatever is changed lands
# in a layer in memory, which therefore shows what has changed. Prints how long each step takes. Exit status 77 is a
# skip, with its reason. ZEVOTUNED_PACKAGES_OUT is a folder that the packages are copied to, if it is set.
set -eu -o pipefail
here=$(cd "$(dirname "$0")" && pwd)
source=$(cd "$here/../.." && pwd)

skip() {
	echo "check_packages: skipped: $*" >&2
	exit 77
}
fail() {
	echo "check_packages: $*" >&2
	exit 1
}

if [ "${1:-}" != --inside ]; then
	[ "$(id -u)" = 0 ] || skip "a clean root takes root"
	for tool in dpkg-buildpackage dh lintian git findmnt mkfs.btrfs systemd-analyze systemd-tmpfiles man cc c++; do
		[ -n "$(command -v $tool)" ] || skip "$tool is not installed (scripts/install-packages --packages)"
	done
	missing=$(dpkg-checkbuilddeps "$source/debian/control" 2>&1) || skip "$missing"
	for path in /usr/zevo /usr/bin/zevotune /usr/include/zevotuned; do
		[ ! -e $path ] || skip "this machine is not clean: $path is there already"
	done
	exec "$source/tests/lab/enter" "$0" --inside
fi

step_began=0
step() {
	[ -z "${step_name:-}" ] || printf '%4d s  %s\n' $((SECONDS - step_began)) "$step_name"
	step_name=$1 step_began=$SECONDS
}

# On disk, as the lab's own folder is in memory. No mount is ever made in here.
work=$(TMPDIR=/var/tmp mktemp -d -t zevotuned-packages.XXXXXX)
trap 'rm -rf --one-file-system "$work"' EXIT

packages="libvunkcore libzevostorage libzevotuned-dev libzevotuned7 zevotune"

step "copying the tree"
mkdir "$work/libzevotuned"
git -c safe.directory="$source" -C "$source" ls-files -z --cached --others --exclude-standard |
	tar --create --directory "$source" --null --files-from - --ignore-failed-read --warning=no-failed-read |
	tar --extract --directory "$work/libzevotuned"

step "building the packages"
(cd "$work/libzevotuned" && dpkg-buildpackage -us -uc -b) >"$work/log" 2>&1 || {
	tail -n 60 "$work/log" >&2
	fail "the packages cannot be built"
}
built=$(cd "$work" && printf '%s\n' *.deb | sed '/-dbgsym_/d; s/_.*//' | paste -s -d ' ')
[ "$built" = "$packages" ] || fail "these packages were built: $built"
if [ -n "${ZEVOTUNED_PACKAGES_OUT:-}" ]; then
	cp "$work"/*.deb "$work"/*.changes "$work"/*.buildinfo "$ZEVOTUNED_PACKAGES_OUT"
fi

step "lintian"
# One override is for a few bytes of machine code, which may be others next time.
lintian -EvIL +pedantic --profile debian --suppress-tags unused-override \
	--fail-on error,warning,info,pedantic,experimental "$work"/*.changes >"$work/lintian" 2>&1 || {
	cat "$work/lintian" >&2
	fail "lintian has complaints"
}

# The clean root.
base=/run/clean
root=$base/root
mkdir $base
mount -t tmpfs -o mode=0755 clean $base
mkdir $base/lower $base/upper $base/work $root
mount --bind / $base/lower # without what is mounted on it, as the overlay sees it
mount -t overlay -o lowerdir=/,upperdir=$base/upper,workdir=$base/work clean $root
for folder in proc sys dev; do
	mount --rbind /$folder $root/$folder
done
mount -t tmpfs -o mode=0755 run $root/run
mount -t tmpfs -o mode=1777 tmp $root/tmp
mkdir -m 1777 $root/run/lock
mkdir -p $root/run/lab/kernel-sys
mount --bind /run/lab/kernel-sys $root/run/lab/kernel-sys
touch $root/run/zevotuned-lab
mkdir $root/tmp/packages
cp "$work"/*.deb $root/tmp/packages
rm $root/tmp/packages/*-dbgsym_*
cp -r "$source/tests/abi/consumer" "$here/rescan_test.sh" $root/tmp

inside() {
	chroot $root env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"
}
# shellcheck disable=SC2317 # it is called by name
parameters() {
	grep -r '' /proc/sys/vm 2>/dev/null | sort
}

# What differs from the machine, but for what dpkg and its triggers keep: its books, the index of manual pages, the
# cache of the loader. Folders that were there before count by owner and mode, files by their bytes as well.
left() {
	local path upper lower
	(cd $base/upper && find . -mindepth 1 \( -path ./var/lib/dpkg -o -path ./var/log/dpkg.log -o -path ./var/cache/man \
		-o -path ./var/cache/ldconfig -o -path ./etc/ld.so.cache \) -prune -o -print) | while IFS= read -r path; do
		upper=$base/upper/$path lower=$base/lower/$path
		[ "$(stat -c '%F %a %u:%g' "$upper")" = "$(stat -c '%F %a %u:%g' "$lower" 2>/dev/null)" ] &&
			{ [ -d "$upper" ] || [ -L "$upper" ] || cmp -s "$upper" "$lower"; } || echo "${path#.}"
	done
	(cd $root/run && find . -mindepth 1 -path '*zevo*' ! -path ./zevotuned-lab)
}
expect_left() {
	local now
	now=$(left)
	[ "$now" = "$2" ] || fail "$1 these are left:
$now
and not:
$2"
}

install_packages() {
	inside sh -c 'dpkg --install /tmp/packages/*.deb' >"$work/log" 2>&1 || {
		cat "$work/log" >&2
		fail "the packages cannot be installed"
	}
}

expect_left "before anything is installed" ""

step "installing"
parameters >"$work/before"
install_packages
parameters | cmp -s - "$work/before" || fail "installing has changed kernel parameters"
[ ! -e $root/usr/zevo/etc/zevotuned ] || fail "installing has made a configuration"
for link in multi-user.target.wants/zevotune.service timers.target.wants/zevotune-rescan.timer; do
	[ -L $root/etc/systemd/system/$link ] || fail "installing has not enabled $link"
done

step "run-time folders"
expect_folders() {
	local folder
	for folder in /run/lock/zevotuned /run/lock/zevotuned/metadata_cache /run/zevotuned /run/zevotuned/metadata_cache; do
		[ "$(inside stat -c '%F %a %U:%G' $folder)" = "directory 700 root:root" ] ||
			fail "$1, $folder is: $(inside stat -c '%F %a %U:%G' $folder 2>&1)"
	done
}
expect_folders "after the installation"
rm -r $root/run/zevotuned $root/run/lock/zevotuned
inside systemd-tmpfiles --create --boot --prefix=/run/zevotuned --prefix=/run/lock/zevotuned
expect_folders "after a boot"

step "units"
units="zevotune.service zevotune-rescan.service zevotune-rescan.timer"
# shellcheck disable=SC2086 # one word a unit
said=$(inside systemd-analyze verify $units 2>&1) || fail "the units do not verify: $said"
[ -z "$said" ] || fail "the units verify, but: $said"
# How exposed they are, in tenths: what is in there now, with hardly any room.
for unit in zevotune.service:30 zevotune-rescan.service:40; do
	inside systemd-analyze security --offline=true --threshold=${unit#*:} ${unit%:*} >"$work/log" 2>&1 || {
		cat "$work/log" >&2
		fail "${unit%:*} is less confined than it was"
	}
	tail -n 1 "$work/log"
done

step "the command line and its manual pages"
profiles="performance_throughput
performance_latency"
[ "$(inside zevotune --version)" = "zevotune 7.0.0" ] || fail "zevotune is of another version"
[ "$(inside zevotune list --names)" = "$profiles" ] || fail "zevotune list: $(inside zevotune list)"
inside setpriv --reuid 65534 --regid 65534 --clear-groups zevotune list >/dev/null
for page in 1:zevotune 3:libzevotuned 5:zevotuned-profile 5:zevotuned-config; do
	inside man --path "${page%:*}" "${page#*:}" >/dev/null
done
for path in bash-completion/completions/zevotune zsh/vendor-completions/_zevotune; do
	[ -s $root/usr/share/$path ] || fail "there is no completion $path"
done
inside zevotune set performance_latency >/dev/null
[ "$(inside zevotune current)" = performance_latency ] || fail "the profile is not selected"
inside zevotune apply >/dev/null
[ "$(cat /proc/sys/vm/watermark_scale_factor)" = 100 ] || fail "the profile is not applied"

step "programs built against the packages"
expect_profiles() {
	[ "$(inside "$1")" = "$profiles" ] || fail "$1 prints: $(inside "$1")"
}
# shellcheck disable=SC2016 # for the shell in there
inside sh -euc 'cd /tmp/consumer
	flags=$(pkg-config --cflags --libs libzevotuned)
	cc -std=c11 select.c -o /tmp/select_c $flags
	c++ -std=c++17 list.cpp -o /tmp/list_cpp $flags
	cmake -S . -B /tmp/cmake -G Ninja >/dev/null
	cmake --build /tmp/cmake >/dev/null'
for program in /tmp/select_c /tmp/list_cpp /tmp/cmake/select_c /tmp/cmake/list_cpp; do
	expect_profiles $program
done

step "what the timer runs, on volumes"
inside /tmp/rescan_test.sh /usr/libexec/zevotune/rescan-cached-volumes /usr/bin/zevotune
rm -r $root/usr/zevo/sbin $root/usr/zevo/etc/flash_cache.conf

step "removing"
# shellcheck disable=SC2086 # one word a package
inside dpkg --remove $packages >"$work/log" 2>&1 || fail "$(cat "$work/log")"
[ -s $root/usr/zevo/etc/zevotuned/config ] || fail "removing has removed the configuration"
[ -d $root/usr/zevo/etc/volumes ] || fail "removing has removed the settings of volumes"
for path in usr/bin/zevotune usr/include/zevotuned usr/zevo/share; do
	[ ! -e $root/$path ] || fail "removing has left /$path"
done

step "purging"
# shellcheck disable=SC2086
inside dpkg --purge $packages >"$work/log" 2>&1 || fail "$(cat "$work/log")"
expect_left "after purging" ""

step "installing again, and purging at once"
install_packages
inside zevotune current >/dev/null
# shellcheck disable=SC2086
inside dpkg --purge $packages >"$work/log" 2>&1 || fail "$(cat "$work/log")"
expect_left "after purging at once" ""
step ""
echo "check_packages: passed in $SECONDS s"
