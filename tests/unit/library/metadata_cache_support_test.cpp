#include "unit/library/metadata_cache_test.h"

#include <functional>
#include <optional>

namespace {

class MetadataCacheSupport : public MetadataCacheTest {
protected:
	struct Answer {
		int result;
		int reason;

		bool operator==(const Answer &) const = default;
		friend std::ostream &operator<<(std::ostream &out, const Answer &answer)
		{
			return out << answer.result << " " << answer.reason;
		}
	};

	MetadataCacheSupport() { SwitchVolume(false); }

	static Answer OfVolume(const std::string &path = kVolume)
	{
		Answer answer = {0, 99};
		answer.result = ZEVOBtrfsMetadataCacheSupportCheckForVolume(path.c_str(), &answer.reason);
		return answer;
	}
	static Answer OfCache(const std::string &path = kVolume)
	{
		Answer answer = {0, 99};
		answer.result = ZEVOBtrfsMetadataCacheSupportCheckForCache(path.c_str(), &answer.reason);
		return answer;
	}

	void SwitchVolume(bool on) { volume.storage.volumeConf[kVolume].metadataCache = on ? 1 : 0; }

	const std::string check =
		"btrfs_metadata_cache.cpp Failed to check support metadata cache feature and volume type on " + kVolume;
};

TEST_F(MetadataCacheSupport, RefusesNull)
{
	int reason = 99;
	for (const auto function :
	     {ZEVOBtrfsMetadataCacheSupportCheckForVolume, ZEVOBtrfsMetadataCacheSupportCheckForCache}) {
		for (const auto &[path, result, condition] :
		     {std::tuple<const char *, int *, const char *>{nullptr, nullptr, "__null != szVolPath"},
		      {nullptr, &reason, "__null != szVolPath"},
		      {kVolume.c_str(), nullptr, "NULL != piResult"}}) {
			Forget();
			EXPECT_EQ(function(path, result), -1);
			EXPECT_EQ(journal.Lines(), Log({Refused(condition)}));
			EXPECT_EQ(VUNKCErrGet(), 0xD00);
		}
	}
	EXPECT_EQ(reason, 99);
	EXPECT_EQ(volume.storage.calls, Lines{});
}

// ---- The volume

TEST_F(MetadataCacheSupport, IsThereForABtrfsVolumeWhateverStandsInFrontOfIt)
{
	volume.storage.caches.clear();
	volume.storage.volumeConf.clear();
	EXPECT_EQ(OfVolume(), (Answer{1, 0}));
	EXPECT_EQ(volume.storage.calls, Lines{"ZEVOGetFSType /run/volume1 0"});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheSupport, IsNotThereForAVolumeForAReason)
{
	volume.storage.volumes.push_back({.path = "/ext4", .type = ZEVO_FS_EXT});
	EXPECT_EQ(OfVolume("/ext4"), (Answer{0, ZEVO_METADATA_CACHE_NOT_BTRFS}));
	EXPECT_EQ(OfVolume("/missing"), (Answer{0, ZEVO_METADATA_CACHE_NOT_BTRFS}));
	for (const char *const value : {"false", "", "TRUE", "1"}) {
		volume.Configure({{"btrfs_metadata_cache_on", value}});
		EXPECT_EQ(OfVolume(), (Answer{0, ZEVO_METADATA_CACHE_SWITCHED_OFF}));
		EXPECT_EQ(OfVolume("/ext4"), (Answer{0, ZEVO_METADATA_CACHE_SWITCHED_OFF}));
	}
	SwitchVolume(true);
	EXPECT_EQ(OfVolume(), (Answer{0, ZEVO_METADATA_CACHE_SWITCHED_OFF}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheSupport, FailsForAVolumeWhereTheConfigurationCannotBeRead)
{
	kit::WriteFile(kit::kConfigFile, "not a pair\n");
	for (const auto call : {+[] { return OfVolume(); }, +[] { return OfCache(); }}) {
		Forget();
		const std::string code = "[0x1500 " + kit::kConfigFile + ":1]";
		EXPECT_EQ(call(), (Answer{-1, 0}));
		Lines lines = {"utils.cpp Failed to get file [" + kit::kConfigFile + "] to hash" + code};
		const Lines chain = Log({"Failed to TunedConfigGet.{code}",
		                         "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}"},
		                        code);
		lines.insert(lines.end(), chain.begin(), chain.end());
		lines.push_back(check);
		EXPECT_EQ(journal.Lines(), lines);
		EXPECT_EQ(VUNKCErrGet(), 0x1500);
	}
	Forget();
	const kit::Fault fault("VUNKCSzHashAlloc");
	EXPECT_EQ(OfVolume(), (Answer{-1, 0}));
	Lines lines = Log({"Failed to VUNKCSzHashAlloc().{code}",
	                   "Failed to BtrfsMetadataCachePolicyCheck with [{volume}]{code}"});
	lines.push_back(check);
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
}

// ---- The cache

TEST_F(MetadataCacheSupport, IsThereForACacheThatCanPin)
{
	for (const int mode : {1, 4, 5}) {
		volume.storage.caches[kVolume].mode = mode;
		EXPECT_EQ(OfCache(), (Answer{1, 0}));
	}
	volume.storage.volumeConf[volume.kDevice] = {};
	volume.storage.volumes.push_back({.path = volume.kDevice, .hasSpace = false});
	EXPECT_EQ(OfCache(volume.kDevice), (Answer{1, 0}));
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_TRUE(fs::is_empty(kVolume));
}

TEST_F(MetadataCacheSupport, IsNotThereForACacheForAReason)
{
	const auto cache = [](int mode, unsigned flags) { return kit::FakeCache{.mode = mode, .flags = flags}; };
	const struct {
		std::optional<kit::FakeCache> cache;
		int reason;
	} rows[] = {
		{cache(3, 6), ZEVO_METADATA_CACHE_MODE_UNKNOWN},      {cache(7, 6), ZEVO_METADATA_CACHE_MODE_UNKNOWN},
		{std::nullopt, ZEVO_METADATA_CACHE_NO_SSD_CACHE},     {cache(6, 6), ZEVO_METADATA_CACHE_NO_SSD_CACHE},
		{cache(0, 6), ZEVO_METADATA_CACHE_NOT_READY},         {cache(2, 6), ZEVO_METADATA_CACHE_NOT_READY},
		{cache(1, 2), ZEVO_METADATA_CACHE_CANNOT_PIN},        {cache(4, 0), ZEVO_METADATA_CACHE_CANNOT_PIN},
		{cache(1, 4), ZEVO_METADATA_CACHE_CANNOT_PIN_RANGES},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.reason);
		volume.storage.caches.clear();
		if (row.cache)
			volume.storage.caches[kVolume] = *row.cache;
		SwitchVolume(false);
		EXPECT_EQ(OfCache(), (Answer{0, row.reason}));
		SwitchVolume(true); // and must be switched off again
		EXPECT_EQ(OfCache(), (Answer{1, 0}));
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheSupport, HasTheReasonsOfTheVolumeBeforeThoseOfTheCache)
{
	volume.storage.caches.clear();
	volume.Configure({{"btrfs_metadata_cache_on", "false"}});
	EXPECT_EQ(OfCache(), (Answer{0, ZEVO_METADATA_CACHE_SWITCHED_OFF}));
	volume.Configure({});
	volume.storage.volumes[0].type = ZEVO_FS_EXT; // with settings all the same
	EXPECT_EQ(OfCache(), (Answer{0, ZEVO_METADATA_CACHE_NOT_BTRFS}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheSupport, IsThereWhereTheSwitchIsOnWhateverElse)
{
	volume.storage.caches.clear();
	volume.storage.volumes.clear();
	volume.Configure({{"btrfs_metadata_cache_on", "false"}});
	for (const unsigned on : {1u, 2u, 256u}) {
		volume.storage.volumeConf[kVolume].metadataCache = on;
		Forget();
		EXPECT_EQ(OfCache(), (Answer{1, 0}));
		EXPECT_EQ(volume.storage.calls, Lines{"ZEVOVolumeConfGet /run/volume1"});
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheSupport, IsNotThereForAVolumeWithoutASwitch)
{
	volume.storage.volumeConf.clear();
	EXPECT_EQ(OfCache(), (Answer{0, ZEVO_METADATA_CACHE_NOT_BTRFS}));
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(volume.storage.calls, Lines{"ZEVOVolumeConfGet /run/volume1"});
}

TEST_F(MetadataCacheSupport, FailsForACacheWhereAnythingCannotBeTold)
{
	const std::string cache = "Failed to BtrfsMetadataCacheCheckSSDCache path [{volume}].{code}";
	const struct {
		const char *function;
		Lines lines;
	} rows[] = {
		{"ZEVOVolumeConfGet",
	         {"Failed to ZEVOVolumeConfGet with [{volume}].{code}",
	          "Failed to BtrfsMetadataCacheVolumeConfGet with [{volume}].{code}"}},
		{"ZEVOSpaceInfoEnum", {"Failed to enumerate volumes{code}", cache}},
		{"ZEVOFlashCacheConfigTmpGet", {"Failed to get SSD cache config for {volume}{code}", cache}},
		{"ZEVOFlashCacheSupportFlagsGet", {"Failed to get SSD cache support flag for {volume}{code}", cache}},
	};
	for (const auto &row : rows)
		for (const int stale : {0, 0xC200}) {
			SCOPED_TRACE(row.function);
			Forget();
			VUNKCErrSetEx(stale, "stale", 1);
			const kit::Fault fault(row.function);
			EXPECT_EQ(OfCache(), (Answer{-1, 0}));
			EXPECT_TRUE(fault.Struck());
			EXPECT_EQ(journal.Lines(), Log(row.lines));
			EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		}
	Forget();
	volume.storage.caches[kVolume].id = "nvme";
	EXPECT_EQ(OfCache(), (Answer{-1, 0}));
	EXPECT_EQ(journal.Lines(), Log({"Fail to parse SSD ID", cache}, kNoCode));
	Forget();
	volume.storage.volumeConf["/missing"] = {};
	volume.storage.volumes.push_back({.path = "/missing", .hasSpace = false});
	EXPECT_EQ(OfCache("/missing"), (Answer{-1, 0}));
	EXPECT_EQ(journal.Lines(), Log({"Couldn't find volume info for device [/missing]\n{code}",
	                                "Failed to BtrfsMetadataCacheCheckSSDCache path [/missing].{code}"},
	                               kNoCode));
}

} // namespace
