#include "btrfs_metadata_cache/pin_tool.h"

#include "support/log.h"
#include "support/text_buffer.h"

#include <vunkcore/process.h>
#include <zevostorage/flash_cache.h>

namespace {

constexpr char kPinTool[] = "/usr/zevo/sbin/zevocachepinfiletool";
constexpr int kRunToCompletion = 0xBB;

int RunPinTool(const char *szAction, const char *szVolPath, uint64_t ullStartSector, uint64_t ullNumSectors)
{
	const TextBuffer<20> start("%llu", static_cast<unsigned long long>(ullStartSector));
	const TextBuffer<20> count("%llu", static_cast<unsigned long long>(ullNumSectors));
	const int result = VUNKCExecl(kPinTool, kRunToCompletion, szAction, "--mount-path", szVolPath, "--start-sector",
	                              start.c_str(), "--num-sectors", count.c_str(), nullptr);
	if (result >= 0)
		return 0;
	const TextBuffer<1024> command("%s %s %s %s %s %s %s %s", kPinTool, szAction, "--mount-path", szVolPath,
	                               "--start-sector", start.c_str(), "--num-sectors", count.c_str());
	LOG_ERROR_ONLY("Failed. Cmd = %s ret = %d)", command.c_str(), result);
	return -1;
}

} // namespace

int PinRange(const char *szVolPath, uint64_t ullStartSector, uint64_t ullNumSectors, bool fPin)
{
	if (ModelSupportPin() == 0) {
		LOG_ERROR("Doesn't support pin");
		return 0;
	}
	if (fPin)
		return RunPinTool("--set-bitmap", szVolPath, ullStartSector, ullNumSectors);
	if (RunPinTool("--unset-bitmap", szVolPath, ullStartSector, ullNumSectors) != 0)
		return -1;
	return RunPinTool("--unpin-range", szVolPath, ullStartSector, ullNumSectors);
}
