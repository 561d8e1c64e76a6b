#include "support/handles.h"
#include "support/log.h"
#include "support/text_buffer.h"
#include "utils/apply/writer.h"
#include "utils/system_access.h"

#include <vunkcore/file.h>
#include <zevotuned/apply.h>

#include <cerrno>
#include <cstring>

#include <fcntl.h>

// Through the exported functions, so that a preloaded library can replace these.
int KernelWriter::ApplyProfile(const char *szProfile)
{
	return TuneApplyProfile(szProfile);
}

int KernelWriter::ApplyGlobalProfiles()
{
	return TuneApplyGlobalProfile();
}

int KernelWriter::WriteParameter(const char *szPath, const char *szValue, unsigned long cbValue)
{
	return TuneParameterWrite(szPath, szValue, cbValue);
}

int KernelWriter::RunSysctl(const char *szSysctl)
{
	return TuneSysctlRun(szSysctl);
}

int KernelWriter::WriteThreadLimit(const char *szPath, int nThreadMax)
{
	const TextBuffer<1024> value("%d", nThreadMax);
	const FileDescriptor file(open(szPath, O_WRONLY | O_CLOEXEC));
	if (!file) {
		LOG_ERROR("Can't open file %s", szPath);
		return -1;
	}
	if (VUNKCWrite(file.get(), value.c_str(), strlen(value.c_str())) < 0) {
		LOG_ERROR("Failed to set writeback thread max errno %s.", strerror(errno));
		return -1;
	}
	return 0;
}

bool KernelWriter::HasTunable(const char *szPath)
{
	return VUNKCFileExist(szPath);
}
