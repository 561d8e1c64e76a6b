// Reading a complete configuration, against the system calls that this takes at least.

#include "bench.h"

#include <vunkcore/hash.h>
#include <zevotuned/zevotuned.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *kDir = "/usr/zevo/etc/zevotuned";
constexpr const char *kFile = "/usr/zevo/etc/zevotuned/config";
constexpr const char *kLockDir = "/run/lock/zevotuned";
constexpr const char *kLock = "/run/lock/zevotuned/config.lock";

void Get()
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
	BENCH_REQUIRE(TunedConfigGet(&hash) == 0);
	VUNKCSzHashFree(hash);
}

/// The folder and the file are looked for, the file is looked at once more when it is read, the lock folder is looked
/// for, the lock is opened, tested and taken, the file is read to its end, the lock is given up.
void Bare()
{
	[[maybe_unused]] static const bool complete = (Get(), true);
	struct stat status;
	char buffer[4096];
	BENCH_REQUIRE(stat(kDir, &status) == 0);
	BENCH_REQUIRE(stat(kFile, &status) == 0);
	BENCH_REQUIRE(stat(kFile, &status) == 0);
	BENCH_REQUIRE(stat(kLockDir, &status) == 0);
	const int lock = open(kLock, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
	BENCH_REQUIRE(fstat(lock, &status) == 0 && flock(lock, LOCK_SH | LOCK_NB) == 0);
	const int file = open(kFile, O_RDONLY | O_CLOEXEC);
	BENCH_REQUIRE(fstat(file, &status) == 0);
	BENCH_REQUIRE(read(file, buffer, sizeof(buffer)) > 0 && read(file, buffer, sizeof(buffer)) == 0);
	close(file);
	flock(lock, LOCK_UN);
	close(lock);
}

[[maybe_unused]] const bool registered = [] {
	bench::Pair("read a complete configuration", 1.5, Get, Bare);
	return true;
}();

} // namespace
