#include "utils/apply/disk.h"

#include "support/check.h"
#include "support/storage_handles.h"
#include "support/text_buffer.h"

#include <vunkcore/text.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

// Those that stay with the machine.
constexpr unsigned kInternalDisks =
	DISK_TYPE_SATA | DISK_TYPE_SAS | DISK_TYPE_NVME | DISK_TYPE_VIRTUAL | DISK_TYPE_EMMC;
static_assert(kInternalDisks == 0x2F);

struct CloseFile {
	void operator()(FILE *file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

// The line that was read last, in a buffer that grows as needed.
class LineBuffer {
public:
	LineBuffer() = default;
	~LineBuffer() { free(line); } // NOLINT(cppcoreguidelines-no-malloc): getline has made it
	LineBuffer(const LineBuffer &) = delete;
	LineBuffer &operator=(const LineBuffer &) = delete;

	bool ReadFrom(FILE *file) { return getline(&line, &size, file) >= 0; }
	const char *c_str() const { return line; }

private:
	char *line = nullptr;
	size_t size = 0;
};

bool Contains(const List &list, std::string_view text)
{
	for (int i = 0; i < list.Count(); ++i)
		if (list.Get(i) == text)
			return true;
	return false;
}

// Selects a scheduler on one disk, if the disk offers it. 0 or -1.
int ApplyScheduler(const DISKINFO &disk, const char *szScheduler, ParameterWriter &writer)
{
	const char *const szDevName = disk.szKernelName;
	CHECK_ARGUMENT(__null != szDevName);

	const TextBuffer<1024> path("/sys/block/%s/queue/scheduler", szDevName);
	const int isOffered = TuneCheckSchedulerSupport(path.c_str(), szScheduler);
	if (isOffered == 0)
		writer.OnPassedOver(disk.szDevice, "it does not offer this scheduler");
	if (isOffered != 1)
		return isOffered;
	return writer.WriteParameter(path.c_str(), szScheduler, strlen(szScheduler));
}

} // namespace

int TuneApplyDiskSection(const SectionPlace &place)
{
	return ApplyEachKey(place, [&place](const char *szKey, const char *szValue) {
		if (TuneApplyDiskByKeyValue(szKey, szValue, place.writer) != 0) {
			LOG_ERROR("Failed to TuneApplyDiskByKeyValue [%s %s].", szKey, szValue);
			return -1;
		}
		return 0;
	});
}

int TuneApplyDiskByKeyValue(const char *szKey, const char *szValue, ParameterWriter &writer)
{
	CHECK_ARGUMENT(__null != szKey);
	CHECK_ARGUMENT(NULL != szValue);

	const DISKFILTER filter = {kInternalDisks};
	DiskList disks(nullptr);
	if (DiskInfoEnum(&filter, disks.out()) < 0) {
		LOG_ERROR("Failed to enum disks");
		return -1;
	}
	if (std::string_view(szKey) != "ssd_scheduler") {
		writer.OnPassedOver(szKey, "[disk] knows no such key");
		return 0;
	}
	for (const DISKINFO *disk = disks.get(); disk != nullptr; disk = disk->pNext) {
		const int isSSD = ZEVODiskIsSSD(disk->szDevice);
		if (isSSD != 1) {
			writer.OnPassedOver(disk->szDevice, isSSD == 0
			                                            ? "it is no SSD"
			                                            : "the kernel does not say whether it is an SSD");
			continue;
		}
		if (ApplyScheduler(*disk, szValue, writer) != 0) {
			LOG_ERROR("Failed to TuneApplyIOSchedulerByDevice [%s %s]", disk->szKernelName, szValue);
			return -1;
		}
	}
	return 0;
}

int TuneCheckSchedulerSupport(const char *szPath, const char *szScheduler)
{
	List tokens;
	if (!tokens) {
		LOG_ERROR("Failed to VUNKCSzListAlloc");
		return -1;
	}
	const File file(fopen(szPath, "re"));
	if (!file) {
		LOG_ERROR_OF_FUNCTION("%s:%d %s:%d Can't open file %s, errno:%s", szPath, strerror(errno));
		return -1;
	}
	LineBuffer line;
	while (line.ReadFrom(file.get())) {
		if (VUNKCStrTok(line.c_str(), " []\n", tokens.out()) < 0) {
			LOG_ERROR("Failed to VUNKCStrTok with [%s]", line.c_str());
			return -1;
		}
		if (Contains(tokens, szScheduler))
			return 1;
	}
	return ferror(file.get()) ? -1 : 0;
}
