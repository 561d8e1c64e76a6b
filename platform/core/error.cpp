#include <vunkcore/error.h>

#include <algorithm>
#include <cstring>

namespace {

struct Error {
	int code = VUNKC_ERR_NONE;
	int line = 0;
	char file[1024] = "";
};

thread_local Error tlsError;

} // namespace

void VUNKCErrSetEx(int iCode, const char *szFile, int iLine)
{
	if (szFile == nullptr)
		szFile = "";
	Error &error = tlsError;
	const size_t length = strlen(szFile);
	const size_t kept = std::min(length, sizeof(error.file) - 1);
	// memmove: the text may be what VUNKCErrorGetFile returned.
	memmove(error.file, szFile + (length - kept), kept);
	error.file[kept] = '\0';
	error.code = iCode;
	error.line = iLine;
}

int VUNKCErrGet(void)
{
	return tlsError.code;
}

const char *VUNKCErrorGetFile(void)
{
	return tlsError.file;
}

int VUNKCErrorGetLine(void)
{
	return tlsError.line;
}
