// Something outside changes between any two steps of a pass: a switch is turned, the cache or the volume goes, a file of the
// engine's own is tampered with. After each: no crash, nothing left open, locked or running, the pass ends and says whether it
// has failed, and nothing is pinned without a record. Then, with everything as it should be, one clean pass completes it.
//
// ZEVOTUNED_SWEEP_AT=7 runs one position of each kind only.

#include "btrfs_metadata_cache/pin_engine.h"

#include "sweep/pin_state.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/machine.h"
#include "kit/nth_call.h"
#include "kit/pin_volume.h"
#include "kit/slow_build.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

using kit::PinVolume;
using Lines = std::vector<std::string>;

const std::string kAway = "/run/volume1-away"; // where an unmounted volume's files are
const Blocks kGood = {16,  512, 513, 514, 515,  516,  517,  518,  519,  640,  641,  642, 643,
                      644, 645, 646, 647, 1024, 1025, 1026, 1027, 1028, 1029, 1030, 1031};

/// A volume, and what a test does to it.
class Victim {
public:
	Victim() { fs::remove_all(kAway); }
	~Victim() { fs::remove_all(kAway); }

	void SetGoodChunks() { volume.SetChunks({{1024, 8, 512, 640}, {2048, 8, 1024}}); }
	void Switch(bool isOn) { volume.storage.volumeConf[volume.kPath].metadataCache = isOn ? 1 : 0; }
	int Pass() const { return __BtrfsMetadataCacheSet(volume.kPath); }
	void UnmountTo(bool leavesFolder);
	void MountAgain();

	/// Wherever the mapping file is.
	Blocks Unrecorded() const
	{
		const std::string away = kAway + volume.kMapping.substr(strlen(volume.kPath));
		return Without(Without(PinnedBlocks(volume.tool), RecordedBlocks(volume.kMapping)),
		               RecordedBlocks(away));
	}

	PinVolume volume;
	bool isUnmounted = false;
};

/// The files of the volume go with it, its device stays; nothing more can be pinned.
void Victim::UnmountTo(bool leavesFolder)
{
	isUnmounted = true;
	fs::rename(volume.kPath, kAway);
	if (leavesFolder)
		fs::create_directory(volume.kPath);
	volume.storage.volumes.clear();
	fs::remove(volume.kSwitch);
	for (const unsigned long request :
	     {kit::kAppliancesLookup, static_cast<unsigned long>(BTRFS_IOC_TREE_SEARCH_V2),
	      static_cast<unsigned long>(BTRFS_IOC_TREE_SEARCH), static_cast<unsigned long>(BTRFS_IOC_FS_INFO),
	      static_cast<unsigned long>(BTRFS_IOC_DEV_INFO), static_cast<unsigned long>(BTRFS_IOC_SPACE_INFO)})
		volume.btrfs.errors[request] = ENOTTY;
}

void Victim::MountAgain()
{
	isUnmounted = false;
	fs::remove_all(volume.kPath); // what was written into the folder below
	fs::rename(kAway, volume.kPath);
	volume.storage.volumes = {{.path = volume.kPath, .uuid = volume.kUuid, .device = volume.kDevice}};
	kit::WriteFile(volume.kSwitch, "0\n");
	volume.btrfs.errors.clear();
}

/// What a pass begins with.
struct Start {
	const char *name;
	void (*prepare)(Victim &);
};

void PrintTo(const Start &start, std::ostream *out)
{
	*out << start.name;
}

void Complete(Victim &victim)
{
	victim.volume.SetChunks({{256, 8, 256}, {1024, 8, 520, 648}});
	EXPECT_EQ(victim.Pass(), 0);
	victim.SetGoodChunks();
}

const Start kStarts[] = {
	{"nothing", [](Victim &victim) { victim.SetGoodChunks(); }},
	{"other_chunks", Complete},
	{"switched_off",
         [](Victim &victim) {
		 victim.SetGoodChunks();
		 EXPECT_EQ(victim.Pass(), 0);
		 victim.Switch(false);
	 }},
};

/// What of the good state must not be asked for after something has happened.
enum class Loss {
	None,
	Records, // the mapping file has been tampered with, or was given up as what it recorded was gone
};

struct Event {
	const char *name;
	void (*happen)(Victim &);
	void (*mend)(Victim &);
	Loss loss = Loss::None;
};

void RestoreMapping(Victim &victim)
{
	fs::remove_all(victim.volume.kMapping);
}

void RestoreDevice(Victim &victim)
{
	fs::remove_all(victim.volume.kDevice);
	kit::WriteFile(victim.volume.kDevice, "");
	fs::resize_file(victim.volume.kDevice, kit::PinTool::kBlocks * PinVolume::kBlock);
}

void Nothing(Victim &) {}

/// Of the volume at its path, whoever looks.
void MakeReadOnly(Victim &victim)
{
	const char *const path = victim.volume.kPath;
	EXPECT_EQ(mount(path, path, "", MS_BIND, nullptr), 0) << errno;
	EXPECT_EQ(mount("", path, "", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0) << errno;
}

/// False where the file system has no such attribute.
bool SetImmutable(const std::string &path, bool isImmutable)
{
	const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
	int flags = 0;
	bool isSet = ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
	flags = isImmutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
	isSet = isSet && ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
	close(fd);
	return isSet;
}

bool HasImmutableFiles()
{
	const std::string path = "/run/immutable";
	kit::WriteFile(path, "");
	const bool has = SetImmutable(path, true);
	SetImmutable(path, false);
	fs::remove(path);
	return has;
}

const Event kEvents[] = {
	{"configuration_off",
         [](Victim &victim) {
		 victim.volume.Configure({{"btrfs_metadata_cache_on", "false"}});
	 },
         [](Victim &victim) { victim.volume.Configure({}); }},
	{"switch_off", [](Victim &victim) { victim.Switch(false); }, Nothing},
	{"switch_on", [](Victim &victim) { victim.Switch(true); }, Nothing},
	{"settings_of_volume_gone", [](Victim &victim) { victim.volume.storage.volumeConf.clear(); }, Nothing},
	{"cache_gone", [](Victim &victim) { victim.volume.storage.caches.clear(); },
         [](Victim &victim) { victim.volume.storage.caches[victim.volume.kPath] = {}; }, Loss::Records},
	{"cache_without_pins", [](Victim &victim) { victim.volume.storage.caches[victim.volume.kPath].flags = 0; },
         [](Victim &victim) { victim.volume.storage.caches[victim.volume.kPath] = {}; }, Loss::Records},
	{"cache_that_cannot_be_told",
         [](Victim &victim) { victim.volume.storage.caches[victim.volume.kPath].answer = -1; },
         [](Victim &victim) { victim.volume.storage.caches[victim.volume.kPath] = {}; }, Loss::Records},
	{"unmounted", [](Victim &victim) { victim.UnmountTo(false); }, [](Victim &victim) { victim.MountAgain(); }},
	{"unmounted_to_an_empty_folder", [](Victim &victim) { victim.UnmountTo(true); },
         [](Victim &victim) { victim.MountAgain(); }},
	{"mapping_removed", [](Victim &victim) { fs::remove(victim.volume.kMapping); }, Nothing, Loss::Records},
	{"mapping_emptied",
         [](Victim &victim) {
		 if (victim.volume.HasMapping())
			 kit::WriteFile(victim.volume.kMapping, "");
	 },
         Nothing, Loss::Records},
	{"mapping_garbage",
         [](Victim &victim) {
		 if (victim.volume.HasMapping())
			 kit::WriteFile(victim.volume.kMapping, std::string("\0[config\n\xff=1\n[[4096]\nsize", 26));
	 },
         RestoreMapping, Loss::Records},
	{"mapping_folder",
         [](Victim &victim) {
		 RestoreMapping(victim);
		 fs::create_directories(victim.volume.kMapping);
	 },
         RestoreMapping, Loss::Records},
	{"volume_read_only", MakeReadOnly,
         [](Victim &victim) { EXPECT_EQ(umount2(victim.volume.kPath, MNT_DETACH), 0) << errno; }},
	{"mapping_immutable",
         [](Victim &victim) {
		 if (victim.volume.HasMapping())
			 SetImmutable(victim.volume.kMapping, true);
	 },
         [](Victim &victim) {
		 if (victim.volume.HasMapping())
			 SetImmutable(victim.volume.kMapping, false);
	 }},
	{"device_gone", [](Victim &victim) { fs::remove(victim.volume.kDevice); }, RestoreDevice},
	{"device_that_cannot_be_read", // as a folder cannot
         [](Victim &victim) {
		 fs::remove(victim.volume.kDevice);
		 fs::create_directory(victim.volume.kDevice);
	 },
         RestoreDevice},
	{"device_shorter", [](Victim &victim) { fs::resize_file(victim.volume.kDevice, 520 * PinVolume::kBlock); },
         RestoreDevice},
	{"kernel_switch_gone", [](Victim &victim) { fs::remove(victim.volume.kSwitch); },
         [](Victim &victim) { kit::WriteFile(victim.volume.kSwitch, "0\n"); }},
};

/// Where in a pass it happens: before its nth call, run of the tool or request, or after its nth run of the tool.
enum class Point { PlatformCall, ToolStart, ToolEnd, Lookup };

const char *Name(Point point)
{
	switch (point) {
	case Point::PlatformCall:
		return "platform call";
	case Point::ToolStart:
		return "start of the tool";
	case Point::ToolEnd:
		return "end of the tool";
	case Point::Lookup:
		return "request";
	}
	return "";
}

/// Runs a pass in which something happens; false when the pass ends before that.
bool PassWith(Victim &victim, const Event &event, Point point, int n, int &result)
{
	bool hasHappened = false;
	int countdown = n;
	const auto step = [&](Point reached) {
		if (reached != point || --countdown != 0)
			return;
		hasHappened = true;
		const kit::Uncounted itsOwnCalls;
		event.happen(victim);
	};
	victim.volume.tool.before = [&](const std::string &) {
		step(Point::ToolStart);
		return victim.isUnmounted ? -1 : 0;
	};
	victim.volume.tool.afterwards = [&](const std::string &) { step(Point::ToolEnd); };
	victim.volume.btrfs.before = [&](unsigned long, void *) { step(Point::Lookup); };
	{
		const kit::BeforeNth before(kit::Calls::Platform, point == Point::PlatformCall ? n : 0,
		                            [&] { step(point); });
		if (point == Point::PlatformCall)
			countdown = 1;
		result = victim.Pass();
	}
	victim.volume.tool.before = {};
	victim.volume.tool.afterwards = {};
	victim.volume.btrfs.before = {};
	return hasHappened;
}

const std::string kFinalLine = "btrfs_metadata_cache.cpp Failed to __BtrfsMetadataCacheSet with [/run/volume1]";

/// What holds after any pass, however it has ended.
void ExpectOver(const Victim &victim, int result, const Lines &lines)
{
	const PinVolume &volume = victim.volume;
	EXPECT_TRUE(result == 0 || result == -1) << result;
	const bool endsWithFinalLine = !lines.empty() && lines.back().starts_with(kFinalLine);
	EXPECT_EQ(endsWithFinalLine, result != 0) << testing::PrintToString(lines);
	EXPECT_TRUE(IsUnlocked(volume.kLock));
	EXPECT_FALSE(fs::exists(volume.kPid));
	EXPECT_FALSE(fs::exists(volume.kProgress));
	EXPECT_EQ(CallsOf(volume.storage, "ZEVOSpaceBuildFileSet"),
	          CallsOf(volume.storage, "ZEVOSpaceBuildFileRemove"));
	EXPECT_EQ(kit::Children(), 0);
	// Each pass asks for the UUID some four times, and once for each chunk.
	EXPECT_LE(CallsOf(volume.storage, "ZEVOFSGetBTRFSUuid"), 3 * 8) << "more than three passes";
}

void ExpectGood(const Victim &victim, const Blocks &lost)
{
	const PinVolume &volume = victim.volume;
	EXPECT_EQ(Without(PinnedBlocks(volume.tool), lost), Without(kGood, lost));
	EXPECT_EQ(victim.Unrecorded(), Without(lost, kGood));
	EXPECT_EQ(Without(RecordedBlocks(volume.kMapping), PinnedBlocks(volume.tool)), Blocks());
	EXPECT_EQ(StatusOf(volume.kMapping, "config"), "2");
	for (const uint64_t section : {uint64_t{1}, 1024 * PinVolume::kBlock, 2048 * PinVolume::kBlock})
		EXPECT_EQ(StatusOf(volume.kMapping, std::to_string(section)), "1") << section;
	EXPECT_EQ(kit::ReadFile(volume.kSwitch), "1\n");
}

void ExpectOff(const Victim &victim, const Blocks &lost, bool isSwitchCertain)
{
	const PinVolume &volume = victim.volume;
	EXPECT_EQ(PinnedBlocks(volume.tool), lost);
	EXPECT_FALSE(volume.HasMapping());
	if (isSwitchCertain) {
		EXPECT_EQ(kit::ReadFile(volume.kSwitch), "0\n");
	}
}

struct Case {
	const Start *start;
	const Event *event;
};

void PrintTo(const Case &row, std::ostream *out)
{
	*out << row.start->name << ", " << row.event->name;
}

std::vector<Case> Cases()
{
	std::vector<Case> cases;
	for (const Start &start : kStarts)
		for (const Event &event : kEvents)
			cases.push_back({&start, &event});
	return cases;
}

constexpr int kStep = kit::kIsSlowBuild ? 13 : 1; // from one position of a pass to the next

class Interference : public kit::LabTest, public testing::WithParamInterface<Case> {
protected:
	/// False when the pass makes fewer such steps.
	static bool RunPosition(Point point, int n, bool isWantedInTheEnd)
	{
		const Event &event = *GetParam().event;
		SCOPED_TRACE(testing::Message() << "before " << Name(point) << ' ' << n << ", in the end "
		                                << (isWantedInTheEnd ? "on" : "off"));
		kit::FreshMachine();
		Victim victim;
		kit::Journal journal;
		GetParam().start->prepare(victim);
		EXPECT_EQ(journal.Lines(), Lines());
		victim.volume.storage.calls.clear();
		const auto descriptors = kit::OpenDescriptors();

		int result;
		const bool hasHappened = PassWith(victim, event, point, n, result);
		ExpectOver(victim, result, journal.Lines());
		EXPECT_EQ(kit::OpenDescriptors(), descriptors);
		const bool isTampered = hasHappened && event.loss == Loss::Records;
		if (!isTampered) {
			EXPECT_EQ(victim.Unrecorded(), Blocks());
		}
		if (hasHappened)
			event.mend(victim);
		const Blocks lost = victim.Unrecorded();

		journal.Clear();
		victim.Switch(isWantedInTheEnd);
		EXPECT_EQ(victim.Pass(), 0);
		EXPECT_EQ(journal.Lines(), Lines());
		if (isWantedInTheEnd)
			ExpectGood(victim, lost);
		else
			ExpectOff(victim, lost, !isTampered);
		return hasHappened;
	}
};

TEST_P(Interference, EndsWellAndIsMended)
{
	if (std::string(GetParam().event->name) == "mapping_immutable" && !HasImmutableFiles())
		GTEST_SKIP() << "files cannot be made immutable here";
	const char *const only = getenv("ZEVOTUNED_SWEEP_AT");
	int positions = 0;
	for (const Point point : {Point::PlatformCall, Point::ToolStart, Point::ToolEnd, Point::Lookup}) {
		if (only != nullptr) {
			for (const bool isWanted : {true, false})
				RunPosition(point, atoi(only), isWanted);
			continue;
		}
		// Every other one is mended by switching off.
		for (int n = 1; RunPosition(point, n, n % 2 != 0) && !HasFailure(); n += kStep) {
			ASSERT_LT(n, 2000) << "it never ends";
			++positions;
		}
	}
	RecordProperty("positions", positions);
}

INSTANTIATE_TEST_SUITE_P(Pin, Interference, testing::ValuesIn(Cases()), [](const auto &row) {
	return std::string(row.param.start->name) + "_then_" + row.param.event->name;
});

/// What the pass of a start, with something failing in it, is followed by.
class FailingPass : public kit::LabTest, public testing::WithParamInterface<Start> {
protected:
	/// Runs a pass with something wrong, then one with all as it should be. False when the former has not failed.
	static bool Run(bool isWantedInTheEnd, const std::function<int(Victim &)> &wrongPass,
	                const std::function<void(Victim &)> &mend = {})
	{
		kit::FreshMachine();
		Victim victim;
		kit::Journal journal;
		GetParam().prepare(victim);
		victim.volume.storage.calls.clear();
		const auto descriptors = kit::OpenDescriptors();
		const int result = wrongPass(victim);
		ExpectOver(victim, result, journal.Lines());
		EXPECT_EQ(kit::OpenDescriptors(), descriptors);
		EXPECT_EQ(victim.Unrecorded(), Blocks());
		if (mend)
			mend(victim);
		journal.Clear();
		victim.Switch(isWantedInTheEnd);
		EXPECT_EQ(victim.Pass(), 0);
		EXPECT_EQ(journal.Lines(), Lines());
		if (isWantedInTheEnd)
			ExpectGood(victim, {});
		else
			ExpectOff(victim, {}, true);
		return result != 0;
	}
};

TEST_P(FailingPass, AToolThatFailsIsRunAgain)
{
	for (const int code : {-3 /* its exit status */, -137 /* killed */, -1 /* missing */})
		for (const bool isWanted : {true, false}) {
			int n = 1;
			const auto fails = [&](Victim &victim) {
				int countdown = n;
				victim.volume.tool.before = [&](const std::string &) {
					return --countdown == 0 ? code : 0;
				};
				const int result = victim.Pass();
				victim.volume.tool.before = {};
				return result;
			};
			while (Run(isWanted, fails))
				ASSERT_LT(++n, 100);
			EXPECT_GT(n, 4);
		}
}

TEST_P(FailingPass, AnEngineThatIsStartedWhileTheToolRunsDoesNothing)
{
	size_t runs = 0;
	const auto isDisturbed = [&](Victim &victim) {
		victim.volume.tool.before = [&](const std::string &) {
			const size_t before = victim.volume.tool.lines.size();
			const std::string pid = kit::ReadFile(victim.volume.kPid);
			EXPECT_EQ(victim.Pass(), 0);
			EXPECT_EQ(victim.volume.tool.lines.size(), before);
			EXPECT_EQ(kit::ReadFile(victim.volume.kPid), pid);
			++runs;
			return 0;
		};
		const int result = victim.Pass();
		victim.volume.tool.before = {};
		// Each of the others has looked only once.
		victim.volume.storage.calls.erase(
			std::remove_if(victim.volume.storage.calls.begin(), victim.volume.storage.calls.end(),
		                       [](const std::string &call) { return call.starts_with("ZEVOFSGetBTRFSUuid"); }),
			victim.volume.storage.calls.end());
		return result;
	};
	EXPECT_FALSE(Run(true, isDisturbed));
	EXPECT_FALSE(Run(false, isDisturbed));
	EXPECT_GT(runs, 4u);
}

TEST_P(FailingPass, ADeviceThatCannotBeReadIsReadAgain)
{
	for (const bool isWanted : {true, false})
		for (int n = 1;; ++n) {
			bool hasStruck = false;
			const bool hasFailed = Run(isWanted, [&](Victim &victim) {
				const kit::Fault fault("pread", n);
				const int result = victim.Pass();
				hasStruck = fault.Struck();
				return result;
			});
			EXPECT_EQ(hasFailed, hasStruck);
			if (!hasStruck) {
				EXPECT_EQ(n > 1, std::string(GetParam().name) != "switched_off");
				break;
			}
			ASSERT_LT(n, 100);
		}
}

/// A mapping file takes a page, and the one that is to replace it another one.
TEST_P(FailingPass, AVolumeWithoutSpaceKeepsARecordOfAllThatIsPinned)
{
	constexpr size_t kPage = 4096;
	constexpr size_t kPages = 16;
	bool hasEverFailed = false;
	for (size_t left = 0; left <= 3; ++left)
		for (const bool isWanted : {true, false}) {
			SCOPED_TRACE(testing::Message() << left << " pages left");
			std::unique_ptr<kit::MountPoint> mount;
			const std::string filler = std::string(PinVolume::kPath) + "/filler";
			const bool hasFailed = Run(
				isWanted,
				[&](Victim &victim) {
					const std::string eaDir = fs::path(victim.volume.kMapping).parent_path();
					const std::string mapping =
						victim.volume.HasMapping() ? kit::ReadFile(victim.volume.kMapping) : "";
					fs::remove_all(eaDir);
					mount = std::make_unique<kit::MountPoint>(
						"tmpfs", victim.volume.kPath, "tmpfs", 0,
						("size=" + std::to_string(kPages * kPage)).c_str());
					if (!mapping.empty())
						kit::WriteFile(victim.volume.kMapping, mapping);
					const size_t used = mapping.empty() ? 0 : 1;
					kit::WriteFile(
						filler,
						std::string((kPages - used - std::min(left, kPages)) * kPage, 'x'));
					return victim.Pass();
				},
				[&](Victim &victim) {
					fs::remove(filler);
					const std::string mapping =
						victim.volume.HasMapping() ? kit::ReadFile(victim.volume.kMapping) : "";
					const bool had = victim.volume.HasMapping();
					mount.reset();
					if (had)
						kit::WriteFile(victim.volume.kMapping, mapping);
				});
			hasEverFailed |= hasFailed;
			EXPECT_FALSE(hasFailed && left >= 2);
		}
	EXPECT_TRUE(hasEverFailed);
}

INSTANTIATE_TEST_SUITE_P(Pin, FailingPass, testing::ValuesIn(kStarts),
                         [](const auto &start) { return std::string(start.param.name); });

} // namespace
