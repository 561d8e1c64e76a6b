// A pid file, and what the kernel says of a process, of any bytes.

#include "fuzz.h"
#include "process.h"

#include <vunkcore/vunkcore.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string &path = FuzzFile(data, size);
	// Signal 0 only asks; no fuzzer is to hit a process by luck.
	const int sent = VUNKCProcSignalByPidFile(path.c_str(), 0);
	const int alive = VUNKCProcAliveByPidFile(path.c_str());
	REQUIRE((sent == 0 && alive == 1) || (sent == -1 && alive == 0));
	vunkc::ReadProcessStat(path.c_str());
	return 0;
}
