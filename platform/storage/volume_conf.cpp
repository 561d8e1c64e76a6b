#include <zevostorage/volume_conf.h>

#include "common/error_kept.h"
#include "common/pairs.h"
#include "storage/failure.h"
#include "storage/folder.h"

#include <vunkcore/lock_file.h>
#include <zevostorage/file_system.h>

#include <charconv>
#include <optional>
#include <string>
#include <string_view>

namespace {

constexpr char kDir[] = ZEVO_VOLUME_CONF_DIR;
// No UUID begins with a dot. Whoever can read a lock file can keep writers out, so nobody else gets there.
constexpr char kLockDir[] = ZEVO_VOLUME_CONF_DIR "/.lock";
constexpr char kLock[] = ZEVO_VOLUME_CONF_DIR "/.lock/write";
constexpr int kLockSeconds = 5;
constexpr char kMetadataCache[] = "metadata_cache";

/// The file of the volume that a path lies on; nothing on failure, with the error set.
std::optional<std::string> FileOf(const char *path)
{
	char uuid[ZEVO_UUID_SIZE];
	if (ZEVOFSGetBTRFSUuid(path, uuid, sizeof(uuid)) != 0)
		return std::nullopt;
	return std::string(kDir) + "/" + uuid;
}

/// -1 for what the volume does not have, so that it cannot be taken for a failure.
int HasNoSettings(const std::string &file)
{
	return vunkc::FailAt(-1, ZEVO_ERR_NO_VOLUME_CONF, file.c_str(), 0);
}

unsigned ParseSetting(const char *value, const std::string &file)
{
	if (value == nullptr)
		return 0;
	const std::string_view text = value;
	unsigned number = 0;
	const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
	if (error != std::errc() || end != text.data() + text.size())
		throw zevos::KernelFailure(ZEVO_ERR_BAD_ANSWER, file);
	return number;
}

/// Keeps other writers out from reading a file to having replaced it, whose changes would be lost.
class WriteLock {
public:
	WriteLock() { VUNKCFileLockTimeByFile(kLock, 1, kLockSeconds, &fd); }
	~WriteLock()
	{
		const vunkc::ErrorKept kept;
		if (fd >= 0)
			VUNKCFileUnlockByFile(fd);
	}
	WriteLock(const WriteLock &) = delete;
	WriteLock &operator=(const WriteLock &) = delete;

	/// False: not to be had, with the error set.
	bool IsHeld() const { return fd >= 0; }

private:
	int fd = -1;
};

} // namespace

int ZEVOVolumeConfGet(const char *szVolPath, ZEVOVOLUMECONF *pConf)
{
	if (szVolPath == nullptr || pConf == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const std::optional<std::string> file = FileOf(szVolPath);
		if (!file)
			return VUNKCErrGet() == ZEVO_ERR_NOT_BTRFS ? HasNoSettings(szVolPath) : -1;
		vunkc::Pairs pairs;
		if (!pairs.Read(file->c_str()))
			return VUNKCErrGet() == VUNKC_ERR_FILE_MISSING ? HasNoSettings(*file) : -1;
		pConf->uMetadataCache = ParseSetting(pairs.Get(kMetadataCache), *file);
		return 0;
	});
}

int ZEVOVolumeConfSet(const char *szVolPath, const ZEVOVOLUMECONF *pConf, int iFields)
{
	if (szVolPath == nullptr || pConf == nullptr || iFields != ZEVO_VOLUME_CONF_METADATA_CACHE)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const std::optional<std::string> file = FileOf(szVolPath);
		if (!file)
			return -1;
		zevos::MakeFolder(kDir);
		zevos::MakeFolder(kLockDir, 0700);
		const WriteLock lock;
		if (!lock.IsHeld())
			return -1;
		vunkc::Pairs pairs;
		{
			const vunkc::ErrorKept kept; // a file that is not there yet is no failure
			if (!pairs.Read(file->c_str()) && VUNKCErrGet() != VUNKC_ERR_FILE_MISSING)
				throw zevos::KernelFailure(VUNKCErrGet(), VUNKCErrorGetFile(), VUNKCErrorGetLine());
		}
		const bool isWritten = pairs.Set(kMetadataCache, std::to_string(pConf->uMetadataCache).c_str()) &&
		                       pairs.Write(file->c_str());
		return isWritten ? 0 : -1;
	});
}
