#include "storage/block_device.h"
#include "storage/failure.h"
#include "storage/records.h"
#include "storage/sysfs.h"

#include <zevostorage/raid.h>

#include <charconv>
#include <string_view>

namespace {

struct Level {
	std::string_view name;
	unsigned flag;
};

constexpr Level kLevels[] = {
	{"raid0", RAID_LEVEL_0}, {"raid1", RAID_LEVEL_1},   {"raid4", RAID_LEVEL_4},       {"raid5", RAID_LEVEL_5},
	{"raid6", RAID_LEVEL_6}, {"raid10", RAID_LEVEL_10}, {"linear", RAID_LEVEL_LINEAR},
};
static_assert(RAID_LEVELS_WITHOUT_PARITY == 0x33 && RAID_LEVELS_WITH_PARITY == 0x4C);

unsigned LevelFlag(std::string_view name)
{
	for (const Level &level : kLevels)
		if (level.name == name)
			return level.flag;
	return 0;
}

struct MemberRecord : RAIDMEMBER {
	explicit MemberRecord(const std::string &kernelName)
		: RAIDMEMBER(), device(std::string(zevos::kDevDir) + kernelName)
	{
		szDevice = device.c_str();
	}
	const std::string device;
};
using MemberList = zevos::RecordList<RAIDMEMBER, MemberRecord>;

struct ArrayRecord : RAIDLIST, RAIDINFO {
	ArrayRecord(const std::string &kernelName, std::string &&levelName, unsigned disks)
		: RAIDLIST(), RAIDINFO(), device(zevos::DeviceName(kernelName)), level(std::move(levelName))
	{
		pRaid = this;
		nDisk = disks;
		fLevel = LevelFlag(level);
		szDevice = device.c_str();
		szLevel = level.c_str();
		MemberList members;
		const auto names = zevos::ReadNames(zevos::BlockPath(kernelName, "/slaves"));
		for (const std::string &member : names.value_or(zevos::Names()))
			members.Append(std::make_unique<MemberRecord>(member));
		pMembers = members.Release();
	}
	~ArrayRecord() { MemberList::Free(pMembers); }
	ArrayRecord(const ArrayRecord &) = delete;
	ArrayRecord &operator=(const ArrayRecord &) = delete;

	const std::string device;
	const std::string level;
};
using ArrayList = zevos::RecordList<RAIDLIST, ArrayRecord>;

/// An array while it changes its shape has the new number, and the old one in brackets behind it.
unsigned ParseDisks(const std::string &text, const std::string &path)
{
	unsigned disks = 0;
	if (std::from_chars(text.data(), text.data() + text.size(), disks).ec != std::errc())
		throw zevos::KernelFailure(ZEVO_ERR_BAD_ANSWER, path);
	return disks;
}

/// The array of an md device; nothing when it has none.
std::unique_ptr<ArrayRecord> ReadArray(const std::string &kernelName)
{
	const std::optional<std::string> state = zevos::ReadAttribute(zevos::BlockPath(kernelName, "/md/array_state"));
	if (!state || *state == "clear")
		return nullptr;
	std::optional<std::string> level = zevos::ReadAttribute(zevos::BlockPath(kernelName, "/md/level"));
	const std::string disksPath = zevos::BlockPath(kernelName, "/md/raid_disks");
	const std::optional<std::string> disks = zevos::ReadAttribute(disksPath);
	if (!level || !disks)
		return nullptr;
	return std::make_unique<ArrayRecord>(kernelName, std::move(*level),
	                                     *state == "inactive" ? 0 : ParseDisks(*disks, disksPath));
}

} // namespace

int RAIDInfoEnum(RAIDLIST **ppList)
{
	if (ppList == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		ArrayList list;
		for (const std::string &device : zevos::BlockDevices()) {
			if (!device.starts_with("md"))
				continue;
			if (std::unique_ptr<ArrayRecord> array = ReadArray(device))
				list.Append(std::move(array));
		}
		const int count = list.Count();
		*ppList = list.Release();
		return count;
	});
}

void RAIDListFree(RAIDLIST *pList)
{
	ArrayList::Free(pList);
}
