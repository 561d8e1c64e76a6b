#include "btrfs_metadata_cache/volume_lookup.h"

#include "kit/faults.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/storage.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

const std::string kFault = "[0xFA17 fault:1]";
const std::string kName = "btrfs_metadata_cache.cpp ";
const std::string kNothing(4095, '?');

class VolumeLookup : public kit::LabTest {
protected:
	VolumeLookup()
	{
		VUNKCErrSetEx(0, "", 0);
		storage.volumes = {{.path = "/volume1", .device = "/dev/dm-1", .altDevice = "/dev/mapper/vg1-volume1"},
		                   {.path = "/volume2", .device = "/dev/sdb1"},
		                   {.path = "/volume3", .device = "/dev/md3"}};
		storage.layers = {{"/volume1", "/dev/dm-1"}, {"/volume3", "/dev/md3"}};
	}

	/// What is found, or "-1".
	std::string Find(const std::string &path)
	{
		std::string found = kNothing;
		if (const int result = BtrfsMetadataCacheSpaceFind(path.c_str(), found.data()); result != 0) {
			EXPECT_EQ(found, kNothing);
			return std::to_string(result);
		}
		return found.c_str();
	}

	std::string NotFound(const std::string &path, const std::string &code) const
	{
		return kName + "Couldn't find volume info for device [" + path + "]\n" + code;
	}

	kit::FakeStorage storage;
	kit::Journal journal;
};

TEST_F(VolumeLookup, FindsAVolumeByItsPathItsDeviceOrItsLayer)
{
	const std::pair<const char *, const char *> rows[] = {
		{"/volume1", "/volume1"},  {"/dev/mapper/vg1-volume1", "/volume1"},
		{"/dev/dm-1", "/volume1"}, {"/volume2", "/volume2"},
		{"/dev/sdb1", "/volume2"}, {"/volume3", "/volume3"},
		{"/dev/md3", "/volume3"},
	};
	for (const auto &[name, path] : rows)
		EXPECT_EQ(Find(name), path) << name;
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeLookup, AsksForALayerOnlyWhereTheNamesDoNotMatch)
{
	EXPECT_EQ(Find("/dev/sdb1"), "/volume2");
	EXPECT_EQ(storage.calls, (Lines{"ZEVOSpaceInfoEnum 1", "ZEVOVSpaceLayerPathGet 1 /volume1 128"}));
}

TEST_F(VolumeLookup, FindsThePrimaryDeviceOnlyWhereItHasNoOtherName)
{
	storage.layers.clear();
	EXPECT_EQ(Find("/dev/dm-1"), "-1");
	EXPECT_EQ(journal.Lines(), Lines{NotFound("/dev/dm-1", "[0x0600 fake:1]")});
	storage.volumes[0].altDevice = "";
	EXPECT_EQ(Find("/dev/dm-1"), "/volume1");
}

TEST_F(VolumeLookup, FindsNothingByAnyOtherName)
{
	for (const char *const name : {"", "/", "/volume", "/volume11", "/volume1/", "//volume1", "/VOLUME1", "volume1",
	                               "/dev/sdb", "/dev/sdb11", "dm-1"}) {
		SCOPED_TRACE(name);
		journal.Clear();
		EXPECT_EQ(Find(name), "-1");
		EXPECT_EQ(journal.Lines(), Lines{NotFound(name, "[0x0600 fake:1]")});
	}
}

TEST_F(VolumeLookup, FindsTheFirstOfSeveral)
{
	storage.volumes[2].device = "/dev/sdb1";
	EXPECT_EQ(Find("/dev/sdb1"), "/volume2");
	storage.layers["/volume1"] = "/dev/sdb1"; // before any name of a later one
	EXPECT_EQ(Find("/dev/sdb1"), "/volume1");
}

TEST_F(VolumeLookup, PassesOverVolumesWithoutALayer)
{
	storage.layers.erase("/volume1");
	EXPECT_EQ(Find("/dev/md3"), "/volume3");
	EXPECT_EQ(storage.calls.size(), 3u);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeLookup, EndsWhereALayerCannotBeTold)
{
	for (const char *const name : {"/volume2", "/dev/md3", "/nowhere"}) {
		SCOPED_TRACE(name);
		journal.Clear();
		storage.calls.clear();
		const kit::Fault fault("ZEVOVSpaceLayerPathGet");
		EXPECT_EQ(Find(name), "-1");
		EXPECT_EQ(journal.Lines(),
		          (Lines{kName + "Failed to ZEVOVSpaceLayerPathGet with [/volume1] errno=0xFA17\n" + kFault,
		                 NotFound(name, kFault)}));
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(storage.calls, Lines{"ZEVOSpaceInfoEnum 1"}); // the failing one does not count
	}
}

TEST_F(VolumeLookup, FailsWhereThereIsNoVolume)
{
	storage.volumes.clear();
	EXPECT_EQ(Find("/volume1"), "-1");
	EXPECT_EQ(journal.Lines(), Lines{NotFound("/volume1", "[0x0000 :0]")});
	journal.Clear();
	const kit::Fault fault("ZEVOSpaceInfoEnum");
	EXPECT_EQ(Find("/volume1"), "-1");
	EXPECT_EQ(journal.Lines(), Lines{kName + "Failed to enumerate volumes" + kFault});
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
}

TEST_F(VolumeLookup, RefusesANullPath)
{
	std::string found = kNothing;
	EXPECT_EQ(BtrfsMetadataCacheSpaceFind(nullptr, found.data()), -1);
	EXPECT_EQ(found, kNothing);
	EXPECT_EQ(journal.Lines(), Lines{kName + "Invaild Argument (__null != szPath)=[0]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(storage.calls, Lines{});
}

TEST_F(VolumeLookup, CutsAPathToItsRoom)
{
	const std::string path = "/" + std::string(5000, 'v');
	storage.volumes.push_back({.path = path, .device = "/dev/sdc1"});
	std::string found(4097, '?');
	EXPECT_EQ(BtrfsMetadataCacheSpaceFind("/dev/sdc1", found.data()), 0);
	EXPECT_EQ(found, path.substr(0, 4095) + '\0' + '?');
}

} // namespace
