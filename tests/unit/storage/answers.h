#ifndef TESTS_UNIT_STORAGE_ANSWERS_H
#define TESTS_UNIT_STORAGE_ANSWERS_H

// The storage library's answers as lines of text, and a machine to get them from.
//
// Every call is made with an old code on the error stack. The helpers check what the call leaves there: the old code after
// a success, another one after a failure. A failed call is the one line "failed 0x0A00 /sys/block", with the place of the
// failure if it is a path.

#include "kit/lab.h"
#include "kit/machine.h"

#include <zevostorage/zevostorage.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace answers {

using Strings = std::vector<std::string>;

inline constexpr int kOldCode = 0x7777;

inline void SetOldCode()
{
	VUNKCErrSetEx(kOldCode, "old", 7);
}

inline std::string Hex(unsigned value, int digits)
{
	char text[16];
	snprintf(text, sizeof(text), "0x%0*X", digits, value);
	return text;
}

/// The line of a call that failed.
inline std::string Failed()
{
	EXPECT_NE(VUNKCErrGet(), kOldCode);
	EXPECT_NE(VUNKCErrGet(), 0);
	const std::string place = VUNKCErrorGetFile();
	return "failed " + Hex(static_cast<unsigned>(VUNKCErrGet()), 4) + (place.starts_with("/") ? " " + place : "");
}

inline std::string OrDash(const char *text)
{
	return *text == '\0' ? "-" : text;
}

/// "/volume1 btrfs 3 /dev/sda1"
inline Strings VolumeLines(int type = 0)
{
	SetOldCode();
	ZEVOMOUNTVOL *const list = ZEVOMountVolInfoEnum(type, 0);
	if (list == nullptr && VUNKCErrGet() != 0)
		return {Failed()};
	EXPECT_EQ(VUNKCErrGet(), 0);
	Strings lines;
	for (const ZEVOMOUNTVOL *volume = list; volume != nullptr; volume = volume->pNext)
		lines.push_back(std::string(volume->szVolPath) + " " + volume->szFsName + " " +
		                std::to_string(volume->iFsType) + " " + volume->szSource);
	ZEVOMountVolInfoFree(list);
	return lines;
}

/// A list of spaces that is released with the object.
class SpaceList {
public:
	SpaceList()
	{
		SetOldCode();
		result = ZEVOSpaceInfoEnum(ZEVO_SPACE_MOUNTED, &list);
		if (result == 0) {
			EXPECT_EQ(VUNKCErrGet(), kOldCode);
		} else {
			EXPECT_EQ(result, -1);
			EXPECT_EQ(list, nullptr) << "changed by a call that failed";
		}
	}
	~SpaceList() { ZEVOSpaceInfoFree(list); }
	SpaceList(const SpaceList &) = delete;
	SpaceList &operator=(const SpaceList &) = delete;

	/// The space of a volume, or null.
	ZEVOSPACEINFO *Find(const std::string &volPath) const
	{
		const ZEVOSPACESEARCH search = {volPath.c_str()};
		ZEVOSPACEINFO *space = nullptr;
		SetOldCode();
		const int found = ZEVOSpaceInfoSearch(list, &search, &space);
		EXPECT_EQ(VUNKCErrGet(), kOldCode);
		EXPECT_EQ(found, space != nullptr ? 1 : 0);
		return space;
	}
	ZEVOSPACEINFO *First() const { return list; }
	bool HasFailed() const { return result != 0; }

private:
	ZEVOSPACEINFO *list = nullptr;
	int result = 0;
};

/// "/volume1 /dev/dm-0 /dev/mapper/vg1-volume1 UUID", with "-" for what is empty.
inline Strings SpaceLines()
{
	const SpaceList list;
	if (list.HasFailed())
		return {Failed()};
	Strings lines;
	for (const ZEVOSPACEINFO *space = list.First(); space != nullptr; space = space->pNext)
		lines.push_back(std::string(space->szVolPath) + " " + OrDash(space->szDevice) + " " +
		                OrDash(space->szAltDevice) + " " + OrDash(space->szUuid));
	return lines;
}

/// A list of the core library's, released with the object.
class TextList {
public:
	explicit TextList(const Strings &strings = {}) : list(VUNKCSzListAlloc(64))
	{
		for (const std::string &string : strings)
			EXPECT_GT(VUNKCSzListPush(&list, string.c_str()), 0);
	}
	~TextList() { VUNKCSzListFree(list); }
	TextList(const TextList &) = delete;
	TextList &operator=(const TextList &) = delete;

	Strings Content() const
	{
		Strings strings;
		for (int i = 0; i < list->nItem; ++i)
			strings.emplace_back(VUNKCSzListGet(list, i));
		return strings;
	}

	VUNKSZLIST *list;
};

/// The disks of a space, sorted.
inline Strings DisksOf(const ZEVOSPACEINFO *space)
{
	const Strings before = {"what was there before"};
	TextList list(before);
	SetOldCode();
	const int result = ZEVOSpaceDiskEnum(space, &list.list);
	Strings content = list.Content();
	if (result < 0) {
		EXPECT_EQ(result, -1);
		EXPECT_EQ(content, before) << "changed by a call that failed";
		return {Failed()};
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	EXPECT_EQ(content.size(), static_cast<size_t>(result) + 1);
	EXPECT_EQ(content.front(), before.front());
	content.erase(content.begin());
	std::sort(content.begin(), content.end());
	return content;
}

/// The disks of the volume at a path, sorted.
inline Strings DisksUnder(const std::string &volPath)
{
	const SpaceList list;
	const ZEVOSPACEINFO *const space = list.Find(volPath);
	if (space == nullptr)
		return {"no such space"};
	return DisksOf(space);
}

/// "sda /dev/sda 0x01"
inline Strings DiskLines(unsigned mask)
{
	const DISKFILTER filter = {mask};
	DISKINFO untouched = {};
	DISKINFO *list = &untouched;
	SetOldCode();
	const int count = DiskInfoEnum(&filter, &list);
	if (count < 0) {
		EXPECT_EQ(count, -1);
		EXPECT_EQ(list, &untouched) << "changed by a call that failed";
		return {Failed()};
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	Strings lines;
	for (const DISKINFO *disk = list; disk != nullptr; disk = disk->pNext)
		lines.push_back(std::string(disk->szKernelName) + " " + disk->szDevice + " " + Hex(disk->uType, 2));
	EXPECT_EQ(lines.size(), static_cast<size_t>(count));
	DiskInfoEnumFree(list);
	return lines;
}

/// "/dev/md0 raid1 0x02 2: /dev/sda1 /dev/sdb1"
inline Strings ArrayLines()
{
	RAIDLIST untouched = {};
	RAIDLIST *list = &untouched;
	SetOldCode();
	const int count = RAIDInfoEnum(&list);
	if (count < 0) {
		EXPECT_EQ(count, -1);
		EXPECT_EQ(list, &untouched) << "changed by a call that failed";
		return {Failed()};
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	Strings lines;
	for (const RAIDLIST *node = list; node != nullptr; node = node->pNext) {
		const RAIDINFO &raid = *node->pRaid;
		std::string line = std::string(raid.szDevice) + " " + OrDash(raid.szLevel) + " " + Hex(raid.fLevel, 2) +
		                   " " + std::to_string(raid.nDisk) + ":";
		for (const RAIDMEMBER *member = raid.pMembers; member != nullptr; member = member->pNext)
			line = line + " " + member->szDevice;
		lines.push_back(line);
	}
	EXPECT_EQ(lines.size(), static_cast<size_t>(count));
	RAIDListFree(list);
	return lines;
}

/// "1", "0" or a failure.
inline std::string IsSsd(const std::string &disk)
{
	SetOldCode();
	const int result = ZEVODiskIsSSD(disk.c_str());
	if (result < 0)
		return Failed();
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	return std::to_string(result);
}

/// What is written into a buffer of a size, or a failure.
inline std::string WithoutPartition(const std::string &device, size_t size = 64)
{
	const std::string before(size, '~');
	std::string out = before;
	SetOldCode();
	if (DiskPartitionNumRemove(device.c_str(), out.data(), size) != 0) {
		EXPECT_EQ(out, before) << "changed by a call that failed";
		return Failed();
	}
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	const size_t end = out.find('\0');
	if (end == std::string::npos)
		return "not terminated";
	EXPECT_EQ(out.find_first_not_of('~', end + 1), std::string::npos) << "written behind the end";
	return out.substr(0, end);
}

/// A machine without devices and mounts, to be filled by the test.
class StorageTest : public kit::LabTest {
protected:
	kit::Machine machine;
};

} // namespace answers

#endif
