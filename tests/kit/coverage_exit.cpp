// In builds that count what tests reach: children that leave with _exit() are counted as well.

#include <initializer_list>

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" void __gcov_dump();

namespace {

/// A child that may not write files would leave halves of the counts behind.
bool MayWrite()
{
	rlimit limit = {};
	return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY && geteuid() == 0;
}

void Dump()
{
	__gcov_dump(); // the program's own; each library has one for itself
	for (const char *library : {"libvunkcore.so.1", "libzevotuned.so.7"}) {
		void *handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
		void *dump = handle != nullptr ? dlsym(handle, "__gcov_dump") : nullptr;
		if (dump != nullptr)
			reinterpret_cast<void (*)()>(dump)();
	}
}

} // namespace

extern "C" void _exit(int status)
{
	if (MayWrite())
		Dump();
	for (;;)
		syscall(SYS_exit_group, status);
}
