#include "cache_error_text.h"

#include "config_access.h"
#include "error_text.h"
#include "paths.h"

#include "support/error_codes.h"

#include <vunkcore/error.h>
#include <zevostorage/error.h>
#include <zevostorage/flash_cache.h>
#include <zevostorage/volume_conf.h>

#include <unistd.h>

namespace {

// Where these are set the stack has no file of the volume's, but a source file.
std::string OfTheEngine(int code, const std::string &volume)
{
	const std::string mapping = volume + '/' + kMappingFile;
	switch (code) {
	case VUNKC_ERR_NONE:
		return "the volume, its device or the kernel does not answer as it should; the system's log says which "
		       "(journalctl -t zevotune)";
	case VUNKC_ERR_EXEC:
		return std::string("the pin tool ") + kPinTool + " cannot be run; see whether it is installed";
	case VUNKC_ERR_EXIT_STATUS:
		return std::string("the pin tool ") + kPinTool +
		       " has failed; the system's log has its command line "
		       "(journalctl -t zevotune)";
	case kErrNotCreated:
		return mapping + ", or a file below " + kEngineDir +
		       ", cannot be made; see whether a file system is full or read-only";
	case kErrNotRegularFile:
		return mapping + ", or a file below " + kEngineDir + ", is no regular file of root's; move it away";
	case kErrNotDirectory:
		return volume + "/@eaDir, " + kEngineDir + " or " + kEngineLockDir + " is no folder; move it away";
	case kErrLockNotTaken:
		return std::string("the lock of its engine below ") + kEngineLockDir +
		       " cannot be taken, or the volume has been unmounted meanwhile; try again";
	case kErrNotForked:
		return "no process could be made; see how many there are, and how much memory is free";
	case VUNKC_ERR_TIMEOUT:
		return std::string("another program has held the lock ") + kLockFile + " or " + ZEVO_VOLUME_CONF_DIR +
		       "/.lock/write for 5 seconds; try again";
	default:
		return "";
	}
}

std::string OfAFile(int code, const std::string &file, int line)
{
	const std::string place = line > 0 ? file + ':' + std::to_string(line) : file;
	if (code != VUNKC_ERR_SYNTAX && code != ZEVO_ERR_BAD_ANSWER)
		return "";
	if (file == ZEVO_FLASH_CACHE_FILE)
		return place + ": declares no SSD cache in a way that can be understood; mend it";
	if (file.starts_with(ZEVO_VOLUME_CONF_DIR "/"))
		return place + ": is no setting of a volume; mend it";
	if (file.ends_with(std::string("/") + kMappingFile))
		return place + ": records what is pinned, and cannot be understood; mend it";
	return "";
}

} // namespace

std::string CacheErrorText(const std::string &volume)
{
	const int code = VUNKCErrGet();
	const std::string file = VUNKCErrorGetFile();
	// The library's own places are names of source files; the platform's of files on the machine are paths.
	const bool isPath = file.starts_with('/');
	const std::string text = isPath ? OfAFile(code, file, VUNKCErrorGetLine()) : OfTheEngine(code, volume);
	return text.empty() ? ErrorText() : text;
}
