#include "utils/apply/raid.h"

#include "support/check.h"
#include "support/storage_handles.h"
#include "support/text_buffer.h"

#include <vunkcore/model.h>

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

// Which levels a section tunes; none for a name that is not known.
unsigned LevelMask(std::string_view section)
{
	constexpr unsigned kWithoutParity = 0x33;
	constexpr unsigned kWithParity = 0x4C;
	static_assert(kWithoutParity == RAID_LEVELS_WITHOUT_PARITY && kWithParity == RAID_LEVELS_WITH_PARITY);
	if (section == "raid_cfq_1")
		return kWithoutParity;
	if (section == "raid_cfq_5")
		return kWithParity;
	return section == "raid_cfq_default" ? kWithoutParity | kWithParity : 0;
}

struct Tunable {
	const char *szKey;
	const char *szValue;
	size_t cbValue;
};

using DiskName = TextBuffer<32>; // as long as the kernel's own

// A partition's disk, as it is named under /sys/block.
DiskName DiskOfMember(const char *szDevice)
{
	TextBuffer<64> disk; // stays empty if the disk cannot be told, and then has no tunables
	DiskPartitionNumRemove(szDevice, disk.data(), disk.capacity());
	std::string_view name = disk.c_str();
	if (name.starts_with("/dev")) // "/devx" loses its "x" as well
		name.remove_prefix(std::min(strlen("/dev/"), name.size()));
	return DiskName("%s", name.data());
}

int TuneMember(const RAIDMEMBER &member, const Tunable &tunable, ParameterWriter &writer)
{
	const DiskName disk = DiskOfMember(member.szDevice);
	const char *const szKey = tunable.szKey;
	const size_t cbValue = tunable.cbValue;
	CHECK_ARGUMENT(__null != szKey);
	CHECK_ARGUMENT(0 < cbValue);

	const TextBuffer<1024> path("/sys/block/%s/queue/iosched/%s", disk.c_str(), szKey);
	if (!writer.HasTunable(path.c_str())) {
		writer.OnPassedOver(member.szDevice, "its disk's scheduler has no such tunable");
		return 0;
	}
	return writer.WriteParameter(path.c_str(), tunable.szValue, cbValue);
}

int TuneArray(const RAIDINFO &array, const Tunable &tunable, ParameterWriter &writer)
{
	for (const RAIDMEMBER *member = array.pMembers; member != nullptr; member = member->pNext)
		if (TuneMember(*member, tunable, writer) != 0)
			return -1;
	return 0;
}

// Why a section leaves an array alone; null when it does not.
const char *WhyNot(const RAIDINFO &array, unsigned levels)
{
	if (array.nDisk == 0)
		return "it is not active";
	if (array.nDisk == 1)
		return "it is made for one disk alone";
	return (array.fLevel & levels) == 0 ? "its level is none of this section's" : nullptr;
}

int TuneArrays(unsigned levels, const Tunable &tunable, ParameterWriter &writer)
{
	ArrayList arrays(nullptr);
	if (RAIDInfoEnum(arrays.out()) < 0) {
		LOG_ERROR("Failed to enumerate RAID info");
		return -1;
	}
	if (!arrays) // a model with RAID has at least one array
		return VUNKCSupportRAID() ? -1 : 0;
	for (const RAIDLIST *node = arrays.get(); node != nullptr; node = node->pNext) {
		const RAIDINFO *const array = node->pRaid;
		if (array == nullptr)
			continue;
		if (const char *szWhyNot = WhyNot(*array, levels)) {
			writer.OnPassedOver(array->szDevice, szWhyNot);
			continue;
		}
		if (TuneArray(*array, tunable, writer) != 0)
			return -1;
	}
	return 0;
}

} // namespace

int TuneApplyRaidSection(const SectionPlace &place)
{
	const unsigned levels = LevelMask(place.szSection);
	return ApplyEachKey(place, [&place, levels](const char *szKey, const char *szValue) {
		const Tunable tunable = {szKey, szValue, szValue != nullptr ? strlen(szValue) : 0};
		if (TuneArrays(levels, tunable, place.writer) != 0) {
			LOG_ERROR("Failed to Tune RAID_CFQ [%s %s]", szKey, szValue);
			return -1;
		}
		return 0;
	});
}
