#include <vunkcore/file.h>

#include "common/internal.h"
#include "list.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct CloseDirectory {
	void operator()(DIR *dir) const { closedir(dir); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

bool IsMissing(int error)
{
	return error == ENOENT || error == ENOTDIR;
}

enum class Kind { Regular, Other, Unknown };

Kind KindOf(DIR *dir, const dirent &entry)
{
	if (entry.d_type == DT_REG)
		return Kind::Regular;
	if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) // some file systems do not say
		return Kind::Other;
	struct stat status;
	if (fstatat(dirfd(dir), entry.d_name, &status, 0) == 0)
		return S_ISREG(status.st_mode) ? Kind::Regular : Kind::Other;
	// A link that leads nowhere, or a name that was removed since it was read.
	return IsMissing(errno) || errno == ELOOP ? Kind::Other : Kind::Unknown;
}

/// Collects the names; false when the directory cannot be read to its end.
bool ReadNames(DIR *dir, std::vector<std::string> &names)
{
	for (;;) {
		errno = 0; // readdir() tells its end from a failure by nothing else
		const dirent *entry = readdir(dir);
		if (entry == nullptr)
			return errno == 0;
		if (entry->d_name[0] == '.')
			continue;
		const Kind kind = KindOf(dir, *entry);
		if (kind == Kind::Unknown)
			return false;
		if (kind == Kind::Regular)
			names.emplace_back(entry->d_name);
	}
}

} // namespace

int VUNKCFileEnumDir(const char *szDir, const char *szFilter, VUNKSZLIST **ppslNames, int iFlags)
{
	if (szDir == nullptr || szFilter != nullptr || ppslNames == nullptr || *ppslNames == nullptr ||
	    iFlags != VUNKC_ENUM_REGULAR)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		const Directory dir(opendir(szDir));
		if (dir == nullptr)
			return vunkc::FailAt(-1, IsMissing(errno) ? VUNKC_ERR_FILE_MISSING : VUNKC_ERR_FILE_OPEN, szDir,
			                     0);
		std::vector<std::string> names;
		if (!ReadNames(dir.get(), names))
			return vunkc::FailAt(-1, VUNKC_ERR_FILE_READ, szDir, 0);
		std::sort(names.begin(), names.end());
		const int count = static_cast<int>(names.size());
		vunkc::Append(**ppslNames, std::move(names));
		return count;
	});
}

int VUNKCFileExist(const char *szPath)
{
	if (szPath == nullptr)
		return VUNKC_FAIL(0, VUNKC_ERR_BAD_ARGUMENT);
	struct stat status;
	return stat(szPath, &status) == 0;
}

ssize_t VUNKCWrite(int fd, const void *pBuf, size_t cb)
{
	if ((pBuf == nullptr && cb > 0) || cb > static_cast<size_t>(std::numeric_limits<ssize_t>::max())) {
		errno = EINVAL;
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	}
	const char *const bytes = static_cast<const char *>(pBuf);
	size_t done = 0;
	do {
		// At least once: a bad descriptor is a failure even when there is nothing to write.
		const ssize_t written = write(fd, bytes + done, cb - done);
		if (written < 0 && errno == EINTR)
			continue;
		if (written == 0 && cb > 0)
			errno = EIO;
		if (written < 0 || (written == 0 && cb > 0))
			return VUNKC_FAIL(-1, VUNKC_ERR_FILE_WRITE);
		done += static_cast<size_t>(written);
	} while (done < cb);
	return static_cast<ssize_t>(cb);
}
