#include "unit/library/metadata_cache_test.h"

#include "kit/nth_call.h"

#include <climits>
#include <functional>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace {

class MetadataCacheStatus : public MetadataCacheTest {
protected:
	struct Outcome {
		int result;
		int status;
		unsigned long long total;
		unsigned long long current;

		bool operator==(const Outcome &) const = default;
		friend std::ostream &operator<<(std::ostream &out, const Outcome &outcome)
		{
			return out << outcome.result << ": " << outcome.status << " " << outcome.total << " "
			           << outcome.current;
		}
	};

	inline static const Outcome kIdle = {0, 0, 71, 72};
	inline static const Outcome kPinned = {0, 2, 71, 72};
	inline static const Outcome kWorking = {0, 1, 1000, 300};
	inline static const Outcome kWorkingSomehow = {0, 1, 0, 0};
	inline static const Outcome kFailed = {-1, 70, 71, 72}; // everything as it was

	static Outcome Ask(const std::string &path = kVolume)
	{
		Outcome outcome = {0, 70, 71, 72};
		outcome.result =
			ZEVOBtrfsMetadataCacheStatus(path.c_str(), &outcome.status, &outcome.total, &outcome.current);
		return outcome;
	}

	void WriteMapping(const std::string &text) const { kit::WriteFile(volume.kMapping, text); }
	void WriteStatus(const std::string &status) const
	{
		WriteMapping("[1]\nstatus=\"0\"\n[config]\nstatus=\"" + status + "\"\nmax_used_size=\"0\"\n");
	}

	static std::string Progress(const std::string &pid)
	{
		return "pid=\"" + pid + "\"\ntotal=\"1000\"\ncurrent=\"300\"\n";
	}
	void WriteProgress(const std::string &text) const { kit::WriteFile(volume.kProgress, text); }

	/// The engine's doing in a child: it reports its progress.
	void ReportProgress() const { WriteProgress(Progress(std::to_string(getpid()))); }

	/// The file was last written this long ago.
	void MakeOld(time_t seconds) const
	{
		timespec now = {};
		clock_gettime(CLOCK_REALTIME, &now);
		now.tv_sec -= seconds;
		const timespec times[] = {now, now};
		ASSERT_EQ(utimensat(AT_FDCWD, volume.kProgress.c_str(), times, 0), 0);
	}

	/// Runs something before the nth look into a file.
	std::function<void(const std::string &)> OnSleep(int nth, std::function<void()> run)
	{
		return [nth, count = 0, run = std::move(run)](const std::string &line) mutable {
			if (line == "usleep 10000" && ++count == nth)
				run();
		};
	}

	bool HasProgress() const { return fs::exists(volume.kProgress); }
};

// ---- The arguments

TEST_F(MetadataCacheStatus, RefusesNullInTheOrderOfTheArguments)
{
	int status = 70;
	unsigned long long total = 71;
	unsigned long long current = 72;
	const struct {
		const char *path;
		int *status;
		unsigned long long *total;
		unsigned long long *current;
		std::string condition;
	} rows[] = {
		{nullptr, nullptr, nullptr, nullptr, "__null != szVolPath"},
		{"/run/volume1", nullptr, nullptr, nullptr, "__null != status"},
		{"/run/volume1", &status, nullptr, nullptr, "__null != totalSize"},
		{"/run/volume1", &status, &total, nullptr, "NULL != processedSize"},
		{nullptr, &status, &total, &current, "__null != szVolPath"},
		{"/run/volume1", nullptr, &total, &current, "__null != status"},
		{"/run/volume1", &status, nullptr, &current, "__null != totalSize"},
	};
	WriteStatus("2");
	for (const auto &row : rows) {
		SCOPED_TRACE(row.condition);
		Forget();
		EXPECT_EQ(ZEVOBtrfsMetadataCacheStatus(row.path, row.status, row.total, row.current), -1);
		EXPECT_EQ(journal.Lines(), Log({Refused(row.condition)}));
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
	}
	EXPECT_EQ(status, 70);
	EXPECT_EQ(total, 71u);
	EXPECT_EQ(current, 72u);
}

// ---- The mapping file

TEST_F(MetadataCacheStatus, IsIdleWithoutAMappingFileAndMakesNothing)
{
	EXPECT_EQ(Ask(), kIdle);
	ExpectNoFiles();
	fs::create_directory(kVolume + "/@eaDir");
	EXPECT_EQ(Ask(), kIdle);
	EXPECT_TRUE(fs::is_empty(kVolume + "/@eaDir"));
	EXPECT_FALSE(fs::exists("/run/zevotuned"));
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(volume.storage.calls, Lines{});
}

TEST_F(MetadataCacheStatus, IsIdleWithAMappingFileThatHasOnlyJustBeenMade)
{
	for (const char *const text : {"", "[1]\nstatus=\"0\"\nsize=\"4096\"\n"}) {
		WriteMapping(text);
		EXPECT_EQ(Ask(), kIdle);
	}
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_FALSE(fs::exists("/run/zevotuned"));
}

TEST_F(MetadataCacheStatus, IsPinnedWhereTheMappingFileSaysSo)
{
	WriteStatus("2");
	WriteProgress(Progress(std::to_string(getpid()))); // which is none of a pinned volume's
	EXPECT_EQ(Ask(), kPinned);
	EXPECT_TRUE(HasProgress());
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(volume.storage.calls, Lines{}); // nor is its file system
}

TEST_F(MetadataCacheStatus, IsWorkingForAnyOtherStatus)
{
	WriteProgress(Progress("999999"));
	for (const char *const status : {"3", "0", "7", "-1", "21", "", "x", "99999999999999999999"}) {
		SCOPED_TRACE(status);
		WriteStatus(status);
		EXPECT_EQ(Ask(), kWorkingSomehow);
	}
	EXPECT_TRUE(HasProgress()); // nobody has looked
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(volume.storage.calls, Lines{});
}

TEST_F(MetadataCacheStatus, FailsWhereTheMappingFileCannotBeFound)
{
	const std::string line = "Failed to get btrfs metadata pin config.{code}";
	const std::string notFile = "[0xC000 btrfs_metadata_cache.cpp]";
	fs::create_directories(volume.kMapping);
	EXPECT_EQ(Ask(), kFailed);
	EXPECT_EQ(journal.Lines(), Log({line}, notFile));
	EXPECT_EQ(VUNKCErrGet(), 0xC000);
	Forget();
	fs::remove(volume.kMapping);
	fs::create_symlink(volume.kDevice, volume.kMapping);
	EXPECT_EQ(Ask(), kFailed);
	EXPECT_EQ(journal.Lines(), Log({line}, notFile));
	Forget();
	fs::remove_all(kVolume + "/@eaDir");
	kit::WriteFile(kVolume + "/@eaDir", "");
	EXPECT_EQ(Ask(), kFailed);
	EXPECT_EQ(journal.Lines(),
	          Log({"Failed to get zevotuned config directory {code}", line}, "[0xA000 utils.cpp]"));
	EXPECT_EQ(VUNKCErrGet(), 0xA000);
}

TEST_F(MetadataCacheStatus, FailsWhereTheMappingFileCannotBeRead)
{
	const std::string section = "Failed to get section [config] in [{mapping}]{code}";
	const std::string load = "Failed to load metadata cache config [{mapping}].{code}";
	WriteMapping("[config]\nstatus=\"1\"\ngarbage\n");
	EXPECT_EQ(Ask(), kFailed);
	EXPECT_EQ(journal.Lines(), Log({section, load}, Of("[0x1500 {mapping}:3]")));
	EXPECT_EQ(VUNKCErrGet(), 0x1500);
	Forget();
	WriteMapping("[config]\nmax_used_size=\"0\"\n");
	EXPECT_EQ(Ask(), kFailed);
	EXPECT_EQ(journal.Lines(), Log({load}, Of("[0x1500 {mapping}:0]")));
	EXPECT_EQ(VUNKCErrGet(), 0x1500);
}

TEST_F(MetadataCacheStatus, FailsWhereTheCoreLibraryFails)
{
	const std::string alloc = "Failed to VUNKCSzHashAlloc().{code}";
	const std::string section = "Failed to get section [config] in [{mapping}]{code}";
	const std::string load = "Failed to load metadata cache config [{mapping}].{code}";
	const struct {
		const char *function;
		int nth;
		Lines lines;
	} rows[] = {
		{"VUNKCSzHashAlloc", 1, {alloc, load}},
		{"VUNKCSzHashAlloc", 2, {alloc, load}},
		{"VUNKCSzHashAlloc", 3, {alloc}},
		{"VUNKCFileGetSection", 1, {section, load}},
		{"VUNKCFileGetSection", 2, {section, load}},
		{"VUNKCFileGetPair", 1, {"Failed to get file [{progress}] to hash{code}"}},
	};
	WriteStatus("1");
	WriteProgress(Progress(std::to_string(getpid())));
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		Forget();
		const kit::Fault fault(row.function, row.nth);
		EXPECT_EQ(Ask(), kFailed);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), Log(row.lines));
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	EXPECT_TRUE(HasProgress());
}

TEST_F(MetadataCacheStatus, IsIdleWhereTheMappingFileVanishesMeanwhile)
{
	// Between having been found and its first and second reading.
	for (const int call : {2, 4}) {
		SCOPED_TRACE(call);
		Forget();
		WriteStatus("1");
		WriteProgress(Progress(std::to_string(getpid())));
		const kit::BeforeNth before(kit::Calls::Platform, call, [&] { fs::remove(volume.kMapping); });
		EXPECT_EQ(Ask(), kIdle);
		EXPECT_FALSE(volume.HasMapping());
		EXPECT_EQ(journal.Lines(),
		          Log({"Failed to get section [config] in [{mapping}]{code}"}, Of("[0x0800 {mapping}:0]")));
	}
}

// ---- The progress file

TEST_F(MetadataCacheStatus, IsWorkingWhileThePassReports)
{
	WriteStatus("1");
	const kit::ChildProcess engine([&] { ReportProgress(); });
	const std::string text = kit::ReadFile(volume.kProgress);
	EXPECT_EQ(Ask(), kWorking);
	EXPECT_EQ(Ask(), kWorking);
	EXPECT_EQ(kit::ReadFile(volume.kProgress), text);
	EXPECT_EQ(journal.Lines(), Lines{});
	WriteProgress("current=\"18446744073709551615\"\nother=\"1\"\ntotal=\"18446744073709551615\"\npid=\"" +
	              std::to_string(engine.Pid()) + "\"\n");
	EXPECT_EQ(Ask(), (Outcome{0, 1, ULLONG_MAX, ULLONG_MAX}));
}

TEST_F(MetadataCacheStatus, IsWorkingForThePassOfTheSameProcess)
{
	WriteStatus("1");
	ReportProgress();
	EXPECT_EQ(Ask(), kWorking);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheStatus, IsIdleWithoutAReport)
{
	WriteStatus("1");
	EXPECT_EQ(Ask(), kIdle);
	EXPECT_EQ(kit::Names("/run/zevotuned/metadata_cache"), std::set<std::string>{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheStatus, IsIdleWhenTheProcessHasEndedAndRemovesItsReport)
{
	WriteStatus("1");
	kit::ChildProcess engine([&] { ReportProgress(); });
	engine.Kill(); // nobody has collected it yet
	EXPECT_EQ(Ask(), kIdle);
	EXPECT_FALSE(HasProgress());
	WriteProgress(Progress(std::to_string(engine.Pid())));
	EXPECT_NE(engine.EndedBy(), 0);
	EXPECT_EQ(Ask(), kIdle);
	EXPECT_FALSE(HasProgress());
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheStatus, IsIdleWhenTheIdHasBeenGivenToAProcessThatIsYoungerThanTheReport)
{
	WriteStatus("1");
	const kit::ChildProcess other([&] { ReportProgress(); });
	MakeOld(3600);
	EXPECT_EQ(Ask(), kIdle);
	EXPECT_FALSE(HasProgress());
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheStatus, IsIdleForAnIdThatNoProcessHas)
{
	WriteStatus("1");
	const std::string own = std::to_string(getpid());
	for (const std::string &pid :
	     {std::string("0"), std::string("-1"), "-" + own, std::string("999999"), std::string("2147483647"),
	      std::string("2147483648"), std::to_string((1ULL << 32) + static_cast<unsigned long long>(getpid())),
	      std::string("99999999999999999999"), std::string(), "x" + own}) {
		SCOPED_TRACE(pid);
		WriteProgress(Progress(pid));
		EXPECT_EQ(Ask(), kIdle);
		EXPECT_FALSE(HasProgress());
	}
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheStatus, FailsForAReportThatLacksAKey)
{
	WriteStatus("1");
	const std::string pid = "pid=\"" + std::to_string(getpid()) + "\"\n";
	const struct {
		std::string text;
		std::string line;
	} rows[] = {
		{"total=\"1\"\ncurrent=\"1\"\n", "Failed to get progress pid in [{progress}]{code}"},
		{pid + "current=\"1\"\n", "Failed to get progress total size in [{progress}]{code}"},
		{pid + "total=\"1\"\n", "Failed to get progress current size in [{progress}]{code}"},
		{"other=\"1\"\n", "Failed to get progress pid in [{progress}]{code}"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		WriteProgress(row.text);
		Forget();
		EXPECT_EQ(Ask(), kFailed);
		EXPECT_EQ(journal.Lines(), Log({row.line}, kNoCode));
		EXPECT_TRUE(HasProgress());
	}
	EXPECT_EQ(device.lines, Lines{});
}

TEST_F(MetadataCacheStatus, FailsForAReportThatCannotBeRead)
{
	WriteStatus("1");
	WriteProgress("garbage\n");
	EXPECT_EQ(Ask(), kFailed);
	EXPECT_EQ(journal.Lines(), Log({"Failed to get file [{progress}] to hash{code}"}, Of("[0x1500 {progress}:1]")));
	EXPECT_EQ(VUNKCErrGet(), 0x1500);
	Forget();
	fs::remove(volume.kProgress);
	fs::create_directory(volume.kProgress);
	EXPECT_EQ(Ask(), kFailed);
	EXPECT_EQ(journal.Lines(),
	          Log({"Failed to get Btrfs Metadata Cache Progress file path with UUID[{uuid}].{code}"},
	              "[0xC000 btrfs_metadata_cache.cpp]"));
	EXPECT_EQ(VUNKCErrGet(), 0xC000);
}

TEST_F(MetadataCacheStatus, WaitsAMomentForAReportThatIsJustBeingWritten)
{
	WriteStatus("1");
	WriteProgress("");
	timeline.before = OnSleep(9, [&] { ReportProgress(); });
	EXPECT_EQ(Ask(), kWorking);
	EXPECT_EQ(device.lines, Lines(9, "usleep 10000"));
	EXPECT_EQ(journal.Lines(), Lines{});
	// But not for ever.
	WriteProgress("");
	timeline.before = nullptr;
	device.lines.clear();
	EXPECT_EQ(Ask(), kFailed);
	EXPECT_EQ(device.lines, Lines(9, "usleep 10000"));
	EXPECT_EQ(journal.Lines(), Log({"Failed to get progress pid in [{progress}]{code}"}, kNoCode));
}

TEST_F(MetadataCacheStatus, IsIdleWhereTheReportVanishesMeanwhile)
{
	WriteStatus("1");
	timeline.before = OnSleep(1, [&] { fs::remove(volume.kProgress); });
	WriteProgress("");
	EXPECT_EQ(Ask(), kIdle);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(MetadataCacheStatus, IsWorkingWhereTheReportCannotBeLookedUpForWantOfAUuid)
{
	WriteStatus("1");
	ReportProgress();
	for (const char *const function : {"ZEVOGetFSType", "ZEVOFSGetBTRFSUuid"}) {
		Forget();
		const kit::Fault fault(function);
		EXPECT_EQ(Ask(), kWorkingSomehow);
		EXPECT_EQ(journal.Lines(), Log({"Failed to get UUID from [{volume}]\n{code}"}));
	}
	Forget();
	volume.storage.volumes[0].type = ZEVO_FS_EXT;
	EXPECT_EQ(Ask(), kWorkingSomehow);
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_TRUE(HasProgress());
}

// ---- With the engine itself

TEST_F(MetadataCacheStatus, FollowsTheEngine)
{
	std::string path = kVolume;
	volume.SetChunks({{4096, 8192, 4096}, {16384, 8, 16384}});
	std::map<std::string, Outcome> outcomes; // by the tool's run that comes next
	volume.tool.before = [&](const std::string &line) {
		outcomes[line.substr(0, line.find(" --mount")) + line.substr(line.find("-sector ") + 7)] = Ask();
		return 0;
	};
	EXPECT_EQ(ZEVOBtrfsMetadataCacheSet(path.data(), 1, 0), 0);
	EXPECT_EQ(outcomes.size(), 3u);
	// The first chunk has been read, all but what is less than a step.
	const Outcome &second = outcomes["--set-bitmap 131072 --num-sectors 64"];
	EXPECT_EQ(second.status, 1) << second;
	EXPECT_EQ(second.total, 8200 * kit::PinVolume::kBlock);
	EXPECT_GT(second.current, 0u);
	EXPECT_LE(second.current, 8192 * kit::PinVolume::kBlock);
	EXPECT_EQ(Ask(), kPinned);
	EXPECT_FALSE(HasProgress());
	outcomes.clear();
	EXPECT_EQ(ZEVOBtrfsMetadataCacheSet(path.data(), 0, 0), 0);
	EXPECT_EQ(outcomes.size(), 6u);
	for (const auto &[line, outcome] : outcomes)
		EXPECT_EQ(outcome, kWorkingSomehow) << line;
	EXPECT_EQ(Ask(), kIdle);
	EXPECT_EQ(journal.Lines(), Lines{});
}

} // namespace
