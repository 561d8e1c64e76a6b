#include "utils/system_access.h"

#include "support/check.h"
#include "support/handles.h"

#include <vunkcore/file.h>
#include <vunkcore/process.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

int TuneParameterWrite(const char *szPath, const char *szValue, unsigned long cbValue)
{
	CHECK_ARGUMENT(__null != szPath);
	CHECK_ARGUMENT(__null != szValue);
	CHECK_ARGUMENT(0 < cbValue);

	const FileDescriptor file(open(szPath, O_WRONLY | O_CLOEXEC));
	if (!file) {
		LOG_ERROR_OF_FUNCTION("%s:%d %s:%d Can't open file %s, errno:%s", szPath, strerror(errno));
		return -1;
	}
	if (VUNKCWrite(file.get(), szValue, cbValue) < 0) {
		LOG_ERROR_OF_FUNCTION("%s:%d %s:%d Failed to set parameter [%s %s], errno:%s", szPath, szValue,
		                      strerror(errno));
		return -1;
	}
	return 0;
}

int CheckFileExist(const char *szPath)
{
	CHECK_ARGUMENT(__null != szPath);

	struct stat status;
	if (stat(szPath, &status) != 0)
		return 0;
	return S_ISREG(status.st_mode) ? 1 : -1;
}

int CheckDirExist(const char *szPath)
{
	CHECK_ARGUMENT(__null != szPath);

	struct stat status;
	if (stat(szPath, &status) != 0)
		return errno == ENOTCONN ? 1 : 0;
	return S_ISDIR(status.st_mode) ? 1 : -1;
}

int CheckOrCreateDir(const char *szPath, bool blCreate)
{
	CHECK_ARGUMENT(__null != szPath);

	const int present = CheckDirExist(szPath);
	if (present < 0) {
		SET_ERROR(kErrNotDirectory);
		return -1;
	}
	if (present == 1 || !blCreate)
		return present;
	if (mkdir(szPath, 0777) != 0) {
		SET_ERROR(kErrNotCreated);
		return 0;
	}
	return 1;
}

int CreateRunLockTunedDir()
{
	return CheckOrCreateDir("/run/lock/zevotuned", true) == 1 ? 0 : -1;
}

int CreateRunTunedDir()
{
	return CheckOrCreateDir("/run/zevotuned", true) == 1 ? 0 : -1;
}

int TuneSysctlRun(const char *szSysctl)
{
	if (VUNKCExec("/sbin/sysctl", "-we", szSysctl, nullptr, nullptr) != 0) {
		LOG_ERROR("Failed to sysctl [%s].", szSysctl);
		return -1;
	}
	return 0;
}
