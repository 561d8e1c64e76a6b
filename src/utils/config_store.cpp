#include <zevotuned/config.h>

#include "support/boundary.h"
#include "support/builtin_profiles.h"
#include "support/check.h"
#include "support/handles.h"
#include "support/text_buffer.h"
#include "utils/system_access.h"

#include <vunkcore/lock_file.h>
#include <vunkcore/pair_file.h>

#include <json/value.h>

#include <cstdio>

#include <fcntl.h>

namespace {

constexpr const char *kConfigDir = "/usr/zevo/etc/zevotuned";
constexpr const char *kConfigFile = "/usr/zevo/etc/zevotuned/config";
constexpr const char *kLockFile = "/run/lock/zevotuned/config.lock";
constexpr int kLockTimeoutSeconds = 5;

struct Default {
	const char *key;
	const char *value;
};

// The keys that make a configuration complete, in the order in which they are looked up and added.
constexpr Default kDefaults[] = {
	{"profile", kBuiltinProfiles[0]},
	{"lock", "false"},
	{"btrfs_metadata_cache_on", "true"},
	{"btrfs_metadata_cache_space_usage_limit", "100"},
	{"btrfs_metadata_cache_read_throttle_wait_mult", "0"},
};

// Finds the configuration file for a function that is about to use it; made where it is missing.
int FindConfig(ConfigPath &path)
{
	if (TuneGetOrCreateConfig(path.data(), path.capacity(), true) != 1) {
		LOG_ERROR("Failed to get zevotuned config.");
		return -1;
	}
	return 0;
}

// Runs one access to a pair file under the configuration's lock. The access logs its own failure.
template <class Access>
int WithConfigLock(const char *szPath, BOOL blExclusive, Access access)
{
	if (CheckFileExist(szPath) != 1) {
		LOG_ERROR("Failed to file not exist [%s]", szPath);
		return -1;
	}
	const int fd = TuneLockConfig(blExclusive);
	if (fd < 0) {
		// "shared" in both modes: whoever watches the journal for this line looks for this text.
		LOG_ERROR("Failed to TuneLockConfig shared of zevotuned config");
		return -1;
	}
	const int result = access();
	if (VUNKCFileUnlockByFile(fd) == 0)
		LOG_ERROR("fail to VUNKCFileUnlockByFile of zevotuned config");
	return result;
}

int SetDefault(Hash &hash, const Default &entry)
{
	if (VUNKCSzHashSetValue(hash.out(), entry.key, entry.value) >= 0)
		return 0;
	if (&entry == kDefaults)
		LOG_ERROR("Failed to set hash key [%s] value [%s]", entry.key, entry.value);
	else
		LOG_ERROR("Failed to set hash key [%s]", entry.key);
	return -1;
}

// Adds the keys that the file lacks. Works on a fresh read of the file, so that what another process has completed or
// changed in the meantime is kept, and nothing is written when nothing is missing any more.
int TuneConfigUpgrade()
{
	ConfigPath path;
	if (FindConfig(path) != 0)
		return -1;
	Hash hash;
	if (!hash) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	if (TuneGetConfigHashFromFile(path.c_str(), hash.out()) != 0)
		return -1;

	bool added = false;
	for (const Default &entry : kDefaults) {
		if (hash.Get(entry.key) != nullptr)
			continue;
		if (SetDefault(hash, entry) != 0)
			return -1;
		added = true;
	}
	return added ? TuneSetConfigHashToFile(path.c_str(), hash.get()) : 0;
}

int MergeInto(Hash &hash, const VUNKSZHASH *pshNew, const List &keys)
{
	for (int i = 0; i < keys.Count(); ++i) {
		const char *szKey = keys.Get(i);
		const char *szValue = VUNKCSzHashGetValue(pshNew, szKey);
		if (VUNKCSzHashSetValue(hash.out(), szKey, szValue) < 0) {
			LOG_ERROR("Failed to set key(%s) value(%s) to hash.", szKey, szValue);
			return -1;
		}
	}
	return 0;
}

} // namespace

int TuneLockConfig(BOOL blExclusive)
{
	const ConfigPath path("%s", kLockFile);
	int fd = -1;
	if (CreateRunLockTunedDir() != 0)
		return -1;
	if (VUNKCFileLockTimeByFile(path.c_str(), blExclusive, kLockTimeoutSeconds, &fd) == 0)
		return -1;
	return fd;
}

int TuneGetOrCreateConfig(char *szConfig, unsigned long cbConfig, bool blCreate)
{
	CHECK_ARGUMENT(__null != szConfig);
	CHECK_ARGUMENT(0 < cbConfig);

	snprintf(szConfig, cbConfig, "%s", kConfigFile);

	const int dir = CheckOrCreateDir(kConfigDir, blCreate);
	if (dir != 1 && blCreate) {
		LOG_ERROR("Failed to create zevotuned config directory [%s] ", kConfigDir);
		return -1;
	}
	if (dir < 0) {
		LOG_ERROR("Failed to get zevotuned config directory ");
		return -1;
	}

	const int file = CheckFileExist(szConfig);
	if (file < 0) {
		SET_ERROR(kErrNotRegularFile);
		return -1;
	}
	if (file == 1 || !blCreate)
		return file;

	// Not creat(): another process may have made and filled the file since it was looked for, and must not lose it.
	const FileDescriptor created(open(szConfig, O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
	if (!created) {
		LOG_ERROR("Failed to create [%s]\n", szConfig);
		SET_ERROR(kErrNotCreated);
		return 0;
	}
	return 1;
}

int TuneGetConfigHashFromFile(const char *szPath, VUNKSZHASH **ppshHash)
{
	CHECK_ARGUMENT(__null != szPath);
	CHECK_ARGUMENT(__null != ppshHash);
	CHECK_ARGUMENT(NULL != *ppshHash);

	return WithConfigLock(szPath, 0, [&] {
		if (VUNKCFileGetPair(szPath, ppshHash) >= 0)
			return 0;
		LOG_ERROR("Failed to get file [%s] to hash", szPath);
		return -1;
	});
}

int TuneSetConfigHashToFile(const char *szPath, VUNKSZHASH *pshHash)
{
	CHECK_ARGUMENT(__null != szPath);
	CHECK_ARGUMENT(NULL != pshHash);

	return WithConfigLock(szPath, 1, [&] {
		if (VUNKCFileSetPair(szPath, pshHash, 0) >= 0)
			return 0;
		LOG_ERROR("Failed to set hash to file [%s]", szPath);
		return -1;
	});
}

int TuneConfigIsValid(VUNKSZHASH *pshHash)
{
	CHECK_ARGUMENT(__null != pshHash);

	for (const Default &entry : kDefaults)
		if (VUNKCSzHashGetValue(pshHash, entry.key) == nullptr)
			return 0;
	return 1;
}

int TunedConfigGet(VUNKSZHASH **ppshHash)
{
	CHECK_ARGUMENT(__null != ppshHash);
	CHECK_ARGUMENT(NULL != *ppshHash);

	ConfigPath path;
	if (FindConfig(path) != 0)
		return -1;
	if (TuneGetConfigHashFromFile(path.c_str(), ppshHash) != 0)
		return -1;
	// The caller's hash is what has to be complete: keys that it brought along count.
	if (TuneConfigIsValid(*ppshHash) == 1)
		return 0;
	if (TuneConfigUpgrade() != 0) {
		LOG_ERROR("Failed to initial & upgrade zevotuned config.");
		return -1;
	}
	return TuneGetConfigHashFromFile(path.c_str(), ppshHash);
}

int TuneSetHashToConfig(VUNKSZHASH *pshHashNew)
{
	CHECK_ARGUMENT(__null != pshHashNew);

	Hash hash;
	if (!hash) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	List keys;
	if (!keys) {
		LOG_ERROR("Failed to VUNKCSzListAlloc().");
		return -1;
	}
	ConfigPath path;
	if (FindConfig(path) != 0)
		return -1;
	if (TuneGetConfigHashFromFile(path.c_str(), hash.out()) != 0)
		return -1;
	if (VUNKCSzHashEnumKey(pshHashNew, keys.out()) < 0) {
		LOG_ERROR("Failed to get hash enum key from hash.");
		return -1;
	}
	if (MergeInto(hash, pshHashNew, keys) != 0)
		return -1;
	return TuneSetConfigHashToFile(path.c_str(), hash.get());
}

int TuneSetKeyValueToConfig(const char *szKey, const char *szValue)
{
	CHECK_ARGUMENT(__null != szKey);
	CHECK_ARGUMENT(NULL != szValue);

	Hash hash;
	if (!hash) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	if (VUNKCSzHashSetValue(hash.out(), szKey, szValue) < 0) {
		LOG_ERROR("Failed to set hash key [%s] value [%s]", szKey, szValue);
		return -1;
	}
	return TuneSetHashToConfig(hash.get());
}

int TuneSetConfigProfile(const char *szProfile)
{
	CHECK_ARGUMENT(__null != szProfile);

	return TuneSetKeyValueToConfig("profile", szProfile);
}

int TunedConfigGetToJson(Json::Value &jsConfig)
try {
	CHECK_ARGUMENT(jsConfig.isNull() || jsConfig.isObject());

	Hash hash;
	if (!hash) {
		LOG_ERROR("Failed to VUNKCSzHashAlloc().");
		return -1;
	}
	List keys;
	if (!keys) {
		LOG_ERROR_ONLY("VUNKCSzListAlloc failed");
		return -1;
	}
	if (TunedConfigGet(hash.out()) != 0) {
		LOG_ERROR("Failed to TunedConfigGet.");
		return -1;
	}
	if (VUNKCSzHashEnumKey(hash.get(), keys.out()) < 0) {
		LOG_ERROR_ONLY("Failed to enum hash key");
		return -1;
	}
	Json::Value complete = jsConfig; // a member that cannot be set must not leave the caller with half of them
	for (int i = 0; i < keys.Count(); ++i)
		complete[keys.Get(i)] = Json::Value(hash.Get(keys.Get(i)));
	jsConfig.swap(complete);
	return 0;
} catch (const std::exception &) {
	return FAIL_ON_EXCEPTION;
}
