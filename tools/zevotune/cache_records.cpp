#include "cache_records.h"

#include "cache_error_text.h"
#include "error_text.h"
#include "failure.h"

#include "btrfs_metadata_cache/paths.h"
#include "btrfs_metadata_cache/recorded_chunks.h"
#include "support/handles.h"

#include <vunkcore/error.h>
#include <vunkcore/section_file.h>

#include <algorithm>
#include <memory>
#include <new>

#include <unistd.h>

namespace {

/// False when it failed, also because a section has gone since its name was read.
bool ReadSections(PinRecords &records)
{
	List sections;
	if (!sections)
		throw std::bad_alloc();
	ForgetErrors();
	if (VUNKCFileEnumSection(records.file.c_str(), sections.out()) < 0)
		return false;
	const auto ctx = std::make_unique<MetadataCacheContext>();
	RecordedChunks recorded;
	if (!LoadRecordedChunks(*ctx, records.file.c_str(), sections, recorded))
		return false;
	records.chunks = std::move(recorded.superblocks);
	records.chunks.insert(records.chunks.end(), recorded.metadata.begin(), recorded.metadata.end());
	return true;
}

/// False when the file cannot be looked at, or what stands there is none.
bool FindFile(const std::string &volume, PinRecords &records)
{
	VolumePath path;
	ForgetErrors();
	const int present = BtrfsMetadataCacheConfigPathGet(volume.c_str(), path.data(), false);
	records.isThere = present == 1;
	records.file = path.c_str();
	return present >= 0;
}

} // namespace

PinRecords ReadPinRecords(const std::string &volume)
{
	constexpr int kReads = 10;
	constexpr useconds_t kPause = 20'000;
	PinRecords records;
	for (int read = 0;; ++read) {
		if (!FindFile(volume, records))
			break;
		if (!records.isThere || ReadSections(records))
			return records;
		if (read == kReads)
			break;
		usleep(kPause);
	}
	throw Failure("cannot tell what of " + volume + " is pinned: " + CacheErrorText(volume));
}

std::optional<std::vector<chunk_info>> ReadPinnedChunks(const std::string &volume)
{
	try {
		std::vector<chunk_info> pinned = ReadPinRecords(volume).chunks;
		std::erase_if(pinned, [](const chunk_info &chunk) { return chunk.status != 1; });
		std::sort(pinned.begin(), pinned.end(), ChunkInfoSort);
		return pinned;
	} catch (const Failure &) {
		return std::nullopt;
	}
}
