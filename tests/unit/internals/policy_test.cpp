#include "btrfs_metadata_cache/policy.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/storage.h"

#include <vunkcore/error.h>
#include <zevostorage/error.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

const std::string kFault = "[0xFA17 fault:1]";
const std::string kName = "btrfs_metadata_cache.cpp ";

std::string Refused(const std::string &condition)
{
	return kName + "Invaild Argument (" + condition + ")=[0]\n";
}

void SetConfig(const std::string &key, const std::string &value)
{
	kit::WriteFile(kit::kConfigFile, "profile=\"x\"\n" + key + "=\"" + value + "\"\n");
}

class MetadataPolicy : public kit::LabTest {
protected:
	MetadataPolicy()
	{
		VUNKCErrSetEx(0, "", 0);
		storage.volumes = {
			{"/volume1", "uuid-1", {}, ZEVO_FS_BTRFS, true, "/dev/dm-1", "/dev/mapper/vg1-volume1"},
			{"/volume2", "uuid-2", {}, ZEVO_FS_BTRFS, true, "/dev/sdb1", ""},
			{"/ext4", "", {}, ZEVO_FS_EXT, true, "/dev/sdc1", ""}};
		storage.volumeConf["/volume1"] = {};
	}

	int Check(bool checkVolume) { return BtrfsMetadataCachePolicyCheck(context, "/volume1", checkVolume); }
	int Support(const char *volume) { return BtrfsMetadataCacheSupportCheck(volume, context, &reason); }
	int Cache(const std::string &path) { return BtrfsMetadataCacheCheckSSDCache(context, path.c_str(), &reason); }

	MetadataCacheContext context = {};
	int reason = 99;
	kit::FakeStorage storage;
	kit::Journal journal;
};

using VolumeSwitch = MetadataPolicy;
using MetadataSupport = MetadataPolicy;
using SsdCache = MetadataPolicy;

TEST_F(VolumeSwitch, IsOnForAnythingButZero)
{
	for (const unsigned value : {0u, 1u, 2u, 256u, 0x80000000u}) {
		SCOPED_TRACE(value);
		storage.volumeConf["/volume1"].metadataCache = value;
		uint8_t on = 99;
		EXPECT_EQ(BtrfsMetadataCacheVolumeConfGet("/volume1", &on), 0);
		EXPECT_EQ(on, value != 0 ? 1 : 0);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(VolumeSwitch, RefusesANullPath)
{
	uint8_t on = 99;
	EXPECT_EQ(BtrfsMetadataCacheVolumeConfGet(nullptr, &on), -1);
	EXPECT_EQ(journal.Lines(), Lines{Refused("__null != szVolPath")});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(on, 99);
}

TEST_F(VolumeSwitch, FailsSilentlyForAVolumeWithoutSettingsAlone)
{
	uint8_t on = 99;
	EXPECT_EQ(BtrfsMetadataCacheVolumeConfGet("/volume2", &on), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xC200);
	EXPECT_EQ(journal.Lines(), Lines{});
	storage.volumeConf["/volume2"].error = 0xA00;
	EXPECT_EQ(BtrfsMetadataCacheVolumeConfGet("/volume2", &on), -1);
	EXPECT_EQ(VUNKCErrGet(), 0xA00);
	EXPECT_EQ(journal.Lines(), Lines{kName + "Failed to ZEVOVolumeConfGet with [/volume2].[0x0A00 fake:1]"});
	EXPECT_EQ(on, 99);
}

TEST_F(VolumeSwitch, IsNotMistakenForMissingByTheCodeOfAnEarlierCall)
{
	uint8_t on = 99;
	VUNKCErrSetEx(0xC200, "stale", 1);
	{
		const kit::Fault fault("ZEVOVolumeConfGet");
		EXPECT_EQ(BtrfsMetadataCacheVolumeConfGet("/volume1", &on), -1);
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	EXPECT_EQ(journal.Lines(), Lines{kName + "Failed to ZEVOVolumeConfGet with [/volume1]." + kFault});
	VUNKCErrSetEx(0xC200, "stale", 1);
	EXPECT_EQ(BtrfsMetadataCacheVolumeConfGet("/volume1", &on), 0);
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(MetadataPolicy, IsOnWithoutAConfigurationAndCompletesIt)
{
	EXPECT_EQ(Check(false), 1);
	EXPECT_EQ(context.fPolicyOn, 1);
	EXPECT_EQ(context.ullSpaceUsageLimit, 100u);
	EXPECT_EQ(context.uReadThrottleWaitMult, 0u);
	EXPECT_NE(kit::ReadFile(kit::kConfigFile).find("btrfs_metadata_cache_on=\"true\""), std::string::npos);
	EXPECT_EQ(storage.calls, Lines{}); // the volume is not looked at
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataPolicy, IsOnForExactlyTrue)
{
	const struct {
		const char *value;
		int on;
	} rows[] = {{"true", 1}, {"True", 0}, {"TRUE", 0}, {"true ", 0}, {"truely", 0},
	            {"tru", 0},  {"1", 0},    {"", 0},     {"false", 0}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.value);
		SetConfig("btrfs_metadata_cache_on", row.value);
		context.fPolicyOn = 99;
		EXPECT_EQ(Check(false), row.on);
		EXPECT_EQ(context.fPolicyOn, row.on);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

// Keys that are missing although the configuration has been completed: the hash does not give them away.
TEST_F(MetadataPolicy, HasDefaultsForKeysThatAreNotThere)
{
	kit::WriteFile(kit::kConfigFile, "profile=\"x\"\nlock=\"false\"\nbtrfs_metadata_cache_on=\"false\"\n"
	                                 "btrfs_metadata_cache_space_usage_limit=\"7\"\n"
	                                 "btrfs_metadata_cache_read_throttle_wait_mult=\"7\"\n");
	constexpr int kOfTheCompleteness = 5; // look-ups that come before
	const struct {
		int nth;
		int on;
		unsigned long long limit;
		unsigned throttle;
	} rows[] = {{1, 1, 7, 7}, {2, 0, 100, 7}, {3, 0, 7, 0}};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.nth);
		const kit::Fault fault("VUNKCSzHashGetValue", kOfTheCompleteness + row.nth);
		EXPECT_EQ(Check(false), row.on);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(context.ullSpaceUsageLimit, row.limit);
		EXPECT_EQ(context.uReadThrottleWaitMult, row.throttle);
	}
}

TEST_F(MetadataPolicy, TakesNumbersAsFarAsTheyGo)
{
	const struct {
		const char *key;
		const char *value;
		uint64_t limit;
		uint32_t throttle;
	} rows[] = {
		{"btrfs_metadata_cache_space_usage_limit", "80", 80, 0},
		{"btrfs_metadata_cache_space_usage_limit", "107374182400 bytes", 107374182400, 0},
		{"btrfs_metadata_cache_space_usage_limit", "99999999999999999999", UINT64_MAX, 0},
		{"btrfs_metadata_cache_space_usage_limit", "half", 0, 0},
		{"btrfs_metadata_cache_space_usage_limit", "", 0, 0},
		{"btrfs_metadata_cache_read_throttle_wait_mult", "3", 100, 3},
		{"btrfs_metadata_cache_read_throttle_wait_mult", "4294967297", 100, 1}, // 32 bits of it
		{"btrfs_metadata_cache_read_throttle_wait_mult", "x", 100, 0},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.value);
		SetConfig(row.key, row.value);
		EXPECT_EQ(Check(false), 1);
		EXPECT_EQ(context.ullSpaceUsageLimit, row.limit);
		EXPECT_EQ(context.uReadThrottleWaitMult, row.throttle);
	}
}

TEST_F(MetadataPolicy, IsThatOfTheVolumeWhereTheConfigurationIsOn)
{
	for (const unsigned on : {1u, 0u, 5u}) {
		storage.volumeConf["/volume1"].metadataCache = on;
		EXPECT_EQ(Check(true), on != 0 ? 1 : 0);
		EXPECT_EQ(context.fPolicyOn, on != 0 ? 1 : 0);
	}
	storage.calls.clear();
	SetConfig("btrfs_metadata_cache_on", "false");
	EXPECT_EQ(Check(true), 0);
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataPolicy, FailsForAVolumeWhoseSwitchCannotBeRead)
{
	storage.volumeConf.clear();
	EXPECT_EQ(Check(true), -1);
	EXPECT_EQ(journal.Lines(),
	          Lines{kName + "Failed to BtrfsMetadataCacheVolumeConfGet with [/volume1].[0xC200 fake:1]"});
	EXPECT_EQ(VUNKCErrGet(), 0xC200);
	journal.Clear();
	storage.volumeConf["/volume1"].error = 0x2200;
	EXPECT_EQ(Check(true), -1);
	EXPECT_EQ(journal.Lines(),
	          (Lines{kName + "Failed to ZEVOVolumeConfGet with [/volume1].[0x2200 fake:1]",
	                 kName + "Failed to BtrfsMetadataCacheVolumeConfGet with [/volume1].[0x2200 fake:1]"}));
	EXPECT_EQ(context.ullSpaceUsageLimit, 100u); // what has been filled in stays
}

TEST_F(MetadataPolicy, RefusesANullPath)
{
	EXPECT_EQ(BtrfsMetadataCachePolicyCheck(context, nullptr, false), -1);
	EXPECT_EQ(journal.Lines(), Lines{Refused("__null != szVolPath")});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
}

TEST_F(MetadataPolicy, FailsWhereTheConfigurationCannotBeRead)
{
	kit::WriteFile(kit::kConfigFile, "not a pair\n");
	EXPECT_EQ(Check(true), -1);
	const std::string code = "[0x1500 " + kit::kConfigFile + ":1]";
	ASSERT_FALSE(journal.Lines().empty());
	EXPECT_EQ(journal.Lines().back(), kName + "Failed to TunedConfigGet." + code);
	journal.Clear();
	const kit::Fault fault("VUNKCSzHashAlloc");
	EXPECT_EQ(Check(true), -1);
	EXPECT_EQ(journal.Lines(), Lines{kName + "Failed to VUNKCSzHashAlloc()." + kFault});
	EXPECT_EQ(storage.calls, Lines{});
}

TEST_F(MetadataSupport, IsThereForABtrfsVolumeWhateverItsSwitch)
{
	storage.volumeConf.clear();
	EXPECT_EQ(Support("/volume1"), 1);
	EXPECT_EQ(reason, 99);
	EXPECT_EQ(storage.calls, Lines{"ZEVOGetFSType /volume1 0"});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataSupport, IsNotThereWhereTheConfigurationIsOff)
{
	SetConfig("btrfs_metadata_cache_on", "false");
	EXPECT_EQ(Support("/ext4"), 0);
	EXPECT_EQ(reason, 6);
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataSupport, IsNotThereForWhatIsNotKnownToBeBtrfs)
{
	for (const char *path : {"/ext4", "/missing"}) {
		reason = 99;
		EXPECT_EQ(Support(path), 0);
		EXPECT_EQ(reason, 7);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataSupport, RefusesNull)
{
	EXPECT_EQ(Support(nullptr), -1);
	EXPECT_EQ(BtrfsMetadataCacheSupportCheck("/volume1", context, nullptr), -1);
	EXPECT_EQ(journal.Lines(), (Lines{Refused("__null != szVolPath"), Refused("NULL != piResult")}));
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(reason, 99);
}

TEST_F(MetadataSupport, FailsWhereThePolicyCannotBeToldWithoutAReason)
{
	const kit::Fault fault("VUNKCSzHashAlloc");
	EXPECT_EQ(Support("/volume1"), -1);
	EXPECT_EQ(journal.Lines(), (Lines{kName + "Failed to VUNKCSzHashAlloc()." + kFault,
	                                  kName + "Failed to BtrfsMetadataCachePolicyCheck with [/volume1]" + kFault}));
	EXPECT_EQ(reason, 99);
}

TEST_F(SsdCache, IsFoundByTheDeviceThatPeopleKnowOrThePath)
{
	storage.caches["/volume1"] = {};
	storage.caches["/volume2"] = {4, "ssd_12", "cache-2", 1000, 0xFF};
	for (const char *path : {"/volume1", "/dev/mapper/vg1-volume1"}) {
		context = {};
		EXPECT_EQ(Cache(path), 1) << path;
		EXPECT_STREQ(context.szVolPath, "/volume1");
		EXPECT_STREQ(context.szDevPath, "/dev/mapper/vg1-volume1");
		EXPECT_STREQ(context.szCacheRef, "cache-1");
		EXPECT_STREQ(context.szSsdId, "1");
		EXPECT_EQ(context.ullCacheSize, 1ULL << 30);
		EXPECT_EQ(context.fCachePinSupport, 1);
	}
	EXPECT_EQ(Cache("/dev/sdb1"), 1);
	EXPECT_STREQ(context.szVolPath, "/volume2");
	EXPECT_STREQ(context.szDevPath, "/dev/sdb1");
	EXPECT_STREQ(context.szCacheRef, "cache-2");
	EXPECT_STREQ(context.szSsdId, "12");
	EXPECT_EQ(context.ullCacheSize, 1000u);
	EXPECT_EQ(reason, 99);
	EXPECT_EQ(storage.calls.front(), "ZEVOSpaceInfoEnum 1");
	EXPECT_EQ(storage.calls[1], "ZEVOFlashCacheConfigTmpGet /volume1 2");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(SsdCache, IsThatOfTheFirstSpaceOfThatName)
{
	storage.volumes.push_back({"/volume3", "uuid-1", {}, ZEVO_FS_BTRFS, true, "/dev/x", "/dev/mapper/vg1-volume1"});
	EXPECT_EQ(Cache("/dev/mapper/vg1-volume1"), 0);
	EXPECT_STREQ(context.szVolPath, "/volume1");
	EXPECT_EQ(Cache("/volume3"), 0);
	EXPECT_STREQ(context.szVolPath, "/volume3");
}

TEST_F(SsdCache, IsNotLookedForUnderAnyOtherName)
{
	// The primary device of a space that has an alternative one, beginnings, endings, other spellings.
	for (const std::string path : {"/dev/dm-1", "/volume", "/volume11", "/volume1/", "//volume1", "/Volume1", ""}) {
		SCOPED_TRACE(path);
		journal.Clear();
		EXPECT_EQ(Cache(path), -1);
		EXPECT_EQ(journal.Lines(),
		          Lines{kName + "Couldn't find volume info for device [" + path + "]\n[0x0000 :0]"});
	}
	EXPECT_EQ(reason, 99);
	EXPECT_STREQ(context.szVolPath, "");
}

TEST_F(SsdCache, RefusesANullPath)
{
	EXPECT_EQ(BtrfsMetadataCacheCheckSSDCache(context, nullptr, &reason), -1);
	EXPECT_EQ(journal.Lines(), Lines{Refused("__null != szPath")});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
}

TEST_F(SsdCache, IsMissingOrCannotPinForAReason)
{
	const auto cache = [](int mode, unsigned flags) { return kit::FakeCache{mode, "ssd_1", "cache-1", 1, flags}; };
	const struct {
		std::optional<kit::FakeCache> cache;
		int reason;
	} rows[] = {
		{std::nullopt, 2},  {cache(6, 0x6), 2},  {cache(0, 0x6), 3},  {cache(2, 0x6), 3},
		{cache(3, 0x6), 1}, {cache(7, 0x6), 1},  {cache(-1, 0x6), 1}, {cache(1, 0), 4},
		{cache(4, 0x2), 4}, {cache(5, 0xFB), 4}, {cache(1, 0x4), 5},  {cache(4, 0xFD), 5},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(testing::Message() << row.reason << (row.cache ? row.cache->mode : -2));
		storage.caches.clear();
		if (row.cache)
			storage.caches["/volume1"] = *row.cache;
		reason = 99;
		context = {};
		context.fCachePinSupport = 1;
		EXPECT_EQ(Cache("/volume1"), 0);
		EXPECT_EQ(reason, row.reason);
		EXPECT_EQ(context.fCachePinSupport, 0);
		context.fCachePinSupport = 1;
		EXPECT_EQ(BtrfsMetadataCacheCheckSSDCache(context, "/volume1", nullptr), 0);
		EXPECT_EQ(context.fCachePinSupport, 0);
		EXPECT_STREQ(context.szVolPath, "/volume1");
		EXPECT_STREQ(context.szCacheRef, "");
		EXPECT_EQ(context.ullCacheSize, 0u);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(SsdCache, IsAskedForItsFlagsOnlyInAModeThatPins)
{
	for (const int mode : {1, 4, 5}) {
		storage.caches["/volume1"].mode = mode;
		EXPECT_EQ(Cache("/volume1"), 1);
		EXPECT_EQ(storage.calls.back(), "ZEVOFlashCacheSupportFlagsGet");
	}
	storage.caches["/volume1"].mode = 2;
	EXPECT_EQ(Cache("/volume1"), 0);
	EXPECT_EQ(storage.calls.back(), "ZEVOFlashCacheConfigTmpGet /volume1 2");
}

TEST_F(SsdCache, IsFoundWhateverPositiveNumberSaysSo)
{
	storage.caches["/volume1"].answer = 2;
	EXPECT_EQ(Cache("/volume1"), 1);
}

TEST_F(SsdCache, FailsWithoutANumber)
{
	const struct {
		std::optional<std::string> id;
		const char *number; // null: none
	} rows[] = {
		{"ssd_0", "0"},
		{"ssd_007", "7"},
		{"ssd_2147483647", "2147483647"},
		{"ssd_-1", "-1"},
		{"ssd_ 5", "5"},
		{"ssd_+5", "5"},
		{"ssd_5x", "5"},
		{"ssd_2147483648", nullptr},
		{"ssd_99999999999999999999", nullptr},
		{"ssd_-2147483649", nullptr},
		{"ssd_", nullptr},
		{"ssd_x", nullptr},
		{"ssd_-", nullptr},
		{"ssd", nullptr},
		{"SSD_1", nullptr},
		{" ssd_1", nullptr},
		{"1", nullptr},
		{"", nullptr},
		{std::nullopt, nullptr},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.id.value_or("none"));
		storage.caches["/volume1"].id = row.id;
		journal.Clear();
		context = {};
		EXPECT_EQ(Cache("/volume1"), row.number == nullptr ? -1 : 1);
		EXPECT_STREQ(context.szSsdId, row.number == nullptr ? "" : row.number);
		EXPECT_EQ(context.fCachePinSupport, row.number == nullptr ? 0 : 1);
		EXPECT_EQ(journal.Lines(), row.number == nullptr ? Lines{kName + "Fail to parse SSD ID"} : Lines{});
	}
	EXPECT_EQ(reason, 99);
}

TEST_F(SsdCache, HasTextsCutToTheirRoom)
{
	const std::string path = "/" + std::string(5000, 'v');
	const std::string device = "/dev/" + std::string(5000, 'd');
	storage.volumes.push_back({path, "uuid", {}, ZEVO_FS_BTRFS, true, device, ""});
	storage.caches[path].reference = std::string(300, 'r');
	for (const auto &[text, size] : {std::pair{context.szVolPath, sizeof(context.szVolPath)},
	                                 {context.szDevPath, sizeof(context.szDevPath)},
	                                 {context.szCacheRef, sizeof(context.szCacheRef)},
	                                 {context.szSsdId, sizeof(context.szSsdId)}})
		memset(text, 0x55, size);
	EXPECT_EQ(Cache(path), 1);
	EXPECT_EQ(context.szVolPath, path.substr(0, 4095));
	EXPECT_EQ(context.szDevPath, device.substr(0, 4095));
	EXPECT_EQ(context.szCacheRef, std::string(256, 'r'));
	EXPECT_STREQ(context.szSsdId, "1");
	storage.caches[path].reference = std::nullopt;
	EXPECT_EQ(Cache(path), 1);
	EXPECT_STREQ(context.szCacheRef, "");
}

TEST_F(SsdCache, FailsWhereTheStorageLibraryFails)
{
	const std::string space = kName + "Failed to enumerate volumes" + kFault;
	const std::string config = kName + "Failed to get SSD cache config for /volume1" + kFault;
	const std::string flags = kName + "Failed to get SSD cache support flag for /volume1" + kFault;
	const struct {
		const char *function;
		std::string line;
		const char *volume; // as the context has it
	} rows[] = {
		{"ZEVOSpaceInfoEnum", space, ""},
		{"ZEVOFlashCacheConfigTmpGet", config, "/volume1"},
		{"ZEVOFlashCacheSupportFlagsGet", flags, "/volume1"},
	};
	storage.caches["/volume1"] = {};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		journal.Clear();
		context = {};
		const kit::Fault fault(row.function);
		EXPECT_EQ(Cache("/dev/mapper/vg1-volume1"), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), Lines{row.line});
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_STREQ(context.szVolPath, row.volume);
	}
	EXPECT_EQ(reason, 99);
}

} // namespace
