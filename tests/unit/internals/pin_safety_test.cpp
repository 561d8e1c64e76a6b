// What is recorded and what is pinned, after passes that were cut short, and where chunks come to lie on one another.

#include "pin_pass_test.h"

#include <pthread.h>

namespace {

class PinSafety : public PinPassTest {
protected:
	/// The nth run of the tool from now on fails.
	void FailRun(int n)
	{
		volume.tool.before = [n](const std::string &) mutable { return --n == 0 ? -1 : 0; };
	}

	/// One pass that nothing disturbs.
	void Pass()
	{
		volume.tool.before = nullptr;
		volume.tool.afterwards = nullptr;
		Forget();
		EXPECT_EQ(Set(), 0);
		EXPECT_EQ(journal.Lines(), Lines{});
	}
};

TEST_F(PinSafety, PinsAgainWhatASwitchOffThatFailedHadUnpinned)
{
	for (int run = 1; run <= 8; ++run) {
		SCOPED_TRACE(run);
		Renew();
		PinAll();
		SwitchVolume(false);
		FailRun(run);
		EXPECT_EQ(Set(), -1);
		SwitchVolume(true);
		Pass();
		EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
		EXPECT_NE(volume.tool.lines, Lines{});
		EXPECT_EQ(Switch(), "1\n");
	}
}

TEST_F(PinSafety, PinsAgainWhatALoweredLimitHadUnpinnedWhenItIsRaised)
{
	for (int run = 1; run <= 6; ++run) {
		SCOPED_TRACE(run);
		Renew();
		PinAll();
		Configure("btrfs_metadata_cache_space_usage_limit", "4096");
		volume.storage.caches[volume.kPath].size = 101; // a limit of 101 bytes
		FailRun(run);
		EXPECT_EQ(Set(), -1);
		Configure("btrfs_metadata_cache_space_usage_limit", "100");
		volume.storage.caches[volume.kPath].size = 1 << 30;
		Pass();
		EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	}
}

// It is pinned, then unpinned together with the later one, and pinned again.
TEST_F(PinSafety, PinsAgainAChunkThatHasTakenThePlaceOfALaterOne)
{
	PinAll();
	volume.SetChunks({kFirst, {1500, 8, 600, 700}}); // where the second chunk was
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	EXPECT_FALSE(Contains(Mapping(), "[8388608]"));
}

TEST_F(PinSafety, PinsAgainAChunkThatHasTakenAPartOfALaterOne)
{
	PinAll();
	volume.SetChunks({kFirst, {1500, 4, 606, 800}});
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "16+1 512+16 606+4 800+4");
}

// Recorded as unread, it is pinned again as the one on the same bytes goes, and then goes itself.
TEST_F(PinSafety, RecordsAsUnreadWhatItHasPinnedAgainBeforeItIsUnpinned)
{
	const kit::MetadataChunk gone = {1500, 8, 600};
	const kit::MetadataChunk goneToo = {2048, 8, 600};
	volume.SetChunks({kFirst, gone});
	PinAll();
	volume.SetChunks({kFirst});
	WriteMapping(Mapping() + Record(goneToo, 0));
	FailRun(3); // unpins the one, pins and unpins the other
	EXPECT_EQ(Set(), -1);
	EXPECT_TRUE(Contains(Mapping(), Record(goneToo, 0))) << Mapping();
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "16+1 512+16");
	EXPECT_FALSE(Contains(Mapping(), "[8388608]"));
}

// The first metadata of most volumes lies around the second copy of the superblock.
TEST_F(PinSafety, PinsAgainTheSuperblockInsideOfAChunkThatIsGone)
{
	volume.SetChunks({{1024, 16, 8}, kSecond});
	PinAll();
	EXPECT_EQ(volume.tool.Pinned(), "8+16 600+8 700+8");
	volume.SetChunks({kSecond});
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "16+1 600+8 700+8");
	SwitchVolume(false);
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "");
	EXPECT_FALSE(volume.HasMapping());
}

TEST_F(PinSafety, PinsAgainTheSuperblockOfASwitchOffThatFailedRightAfterTheChunkAroundIt)
{
	volume.SetChunks({{1024, 16, 8}, kSecond});
	PinAll();
	SwitchVolume(false);
	FailRun(7); // the first one for the superblock
	EXPECT_EQ(Set(), -1);
	EXPECT_EQ(Mapping(), Config("3", 33 * kit::PinVolume::kBlock) + SuperblockRecord(0));
	SwitchVolume(true);
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "8+16 600+8 700+8");
}

TEST_F(PinSafety, FailsWhereTheMappingFileHasVanished)
{
	PinAll();
	volume.btrfs.before = [&](unsigned long, void *) { std::filesystem::remove(volume.kMapping); };
	EXPECT_EQ(Set(), -1);
	EXPECT_EQ(WithoutErrno(journal.Lines()),
	          WithoutErrno(OfEnabling(Log({"Failed to get section [config] in [{mapping}]{code}",
	                                       "Failed to BtrfsMetadataCacheSetStatus with [{mapping}]{code}"},
	                                      Of("[0x0800 {mapping}:0]")),
	                                  Of("[0x0800 {mapping}:0]"))));
	volume.btrfs.before = nullptr;
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
	EXPECT_EQ(Mapping(), Config("2", kAllBytes) + kAllRecords);
}

TEST_F(PinSafety, SwitchesOffAVolumeWhoseMappingFileHasAHeaderTwice)
{
	PinAll();
	WriteMapping(Mapping() + Record(kFirst) + Record(kSecond));
	SwitchVolume(false);
	Pass();
	EXPECT_EQ(volume.tool.Pinned(), "");
	EXPECT_FALSE(volume.HasMapping());
}

// Another volume at the path has a mapping file and a pid file of its own, and perhaps an engine.
TEST_F(PinSafety, EndsWhereAnotherVolumeIsMountedAtThePath)
{
	const std::string other = "22222222-0000-4000-8000-0000000000bb";
	const std::string othersPid = "/run/zevotuned/metadata_cache/" + other + ".pid";
	for (const bool unpins : {false, true}) {
		SCOPED_TRACE(unpins);
		Renew();
		volume.storage.volumes[0].uuid = volume.kUuid;
		if (unpins)
			PinAll();
		SwitchVolume(!unpins);
		Forget();
		volume.tool.afterwards = [&](const std::string &) {
			volume.storage.volumes[0].uuid = other;
			kit::WriteFile(othersPid, "4711 1\n");
		};
		EXPECT_EQ(Set(), -1);
		EXPECT_EQ(errno, ESTALE);
		EXPECT_TRUE(journal.Lines().back().ends_with(
			"Failed to __BtrfsMetadataCacheSet with [/run/volume1][0x0900 btrfs_metadata_cache.cpp]"));
		EXPECT_EQ(volume.tool.lines.size(), unpins ? 4u : 1u); // of the chunk that it was at
		EXPECT_EQ(kit::ReadFile(othersPid), "4711 1\n");
		std::filesystem::remove(othersPid);
		volume.tool.afterwards = nullptr;
	}
}

TEST_F(PinSafety, LeavesTheErrorOfThePassWhateverFailsInItsCleanUp)
{
	FailRun(1);
	timeline.before = [&](const std::string &line) {
		if (line == Of("unlink {pid}"))
			VUNKCErrSetEx(0x1234, "clean-up", 7);
	};
	EXPECT_EQ(Set(), -1);
	timeline.before = nullptr;
	EXPECT_NE(VUNKCErrGet(), 0x1234);
}

TEST_F(PinSafety, RemovesTheProgressFileOfAKilledPassAlsoWhenItSwitchesOff)
{
	PinAll();
	kit::WriteFile(volume.kProgress, "pid=\"1\"\ntotal=\"2\"\ncurrent=\"1\"\n");
	SwitchVolume(false);
	Pass();
	EXPECT_FALSE(std::filesystem::exists(volume.kProgress));
}

// With the lock held and its files there a thread must not vanish.
TEST_F(PinSafety, FinishesThePassOfAThreadThatIsCancelled)
{
	volume.tool.before = [](const std::string &) {
		pthread_cancel(pthread_self());
		return 0;
	};
	const auto run = [](void *result) -> void * {
		*static_cast<int *>(result) = __BtrfsMetadataCacheSet(kit::PinVolume::kPath);
		pthread_testcancel();
		return nullptr;
	};
	pthread_t thread;
	int result = 1;
	ASSERT_EQ(pthread_create(&thread, nullptr, run, &result), 0);
	void *end = nullptr;
	ASSERT_EQ(pthread_join(thread, &end), 0);
	EXPECT_EQ(end, PTHREAD_CANCELED);
	EXPECT_EQ(result, 0);
	EXPECT_EQ(volume.tool.Pinned(), kAllPinned);
}

} // namespace
