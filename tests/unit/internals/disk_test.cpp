#include "utils/apply/disk.h"

#include "section_test.h"

#include <cerrno>
#include <filesystem>

namespace {

namespace fs = std::filesystem;

std::string SchedulerFile(const std::string &disk)
{
	return "/sys/block/" + disk + "/queue/scheduler";
}

class DiskTest : public SectionTest {
protected:
	DiskTest() : SectionTest(TuneApplyDiskSection) {}

	void Add(const std::string &name, int isSSD, const std::string &schedulers)
	{
		storage.disks.push_back({name, "/dev/" + name});
		storage.isSSD["/dev/" + name] = isSSD;
		kit::WriteFile(SchedulerFile(name), schedulers);
	}

	// Three SSDs.
	void AddThree()
	{
		for (const char *name : {"sda", "sdb", "sdc"})
			Add(name, 1, "[mq-deadline] none\n");
	}

	// Applies section "disk" of this text.
	int Apply(const std::string &text) { return SectionTest::Apply("disk", text); }

	// The lines of a disk that fails.
	static Lines LinesOf(const std::string &disk, const std::string &first, const std::string &code)
	{
		Lines lines = {"utils.cpp Failed to TuneApplyIOSchedulerByDevice [" + disk + " none]" + code,
		               "utils.cpp Failed to TuneApplyDiskByKeyValue [ssd_scheduler none]." + code};
		if (!first.empty())
			lines.insert(lines.begin(), "utils.cpp " + first);
		return lines;
	}
};

TEST_F(DiskTest, SelectsTheSchedulerOnEverySSD)
{
	Add("nvme0n1", 1, "[none] kyber bfq\n");
	Add("sda", 0, "[mq-deadline] kyber none\n");
	Add("sdb", 1, "[mq-deadline] kyber none\n");
	EXPECT_EQ(Apply("ssd_scheduler=kyber\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{SchedulerFile("nvme0n1") + ": kyber", SchedulerFile("sdb") + ": kyber"}));
	EXPECT_EQ(storage.calls, (Lines{"DiskInfoEnum 0x2f", "ZEVODiskIsSSD /dev/nvme0n1", "ZEVODiskIsSSD /dev/sda",
	                                "ZEVODiskIsSSD /dev/sdb"}));
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(DiskTest, TakesTheFileByTheKernelsNameAndTheSSDByTheDevices)
{
	storage.disks = {{"cciss!c0d0", "/dev/cciss/c0d0"}};
	storage.isSSD["/dev/cciss/c0d0"] = 1;
	kit::WriteFile(SchedulerFile("cciss!c0d0"), "none kyber\n");
	EXPECT_EQ(Apply("ssd_scheduler=kyber\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{SchedulerFile("cciss!c0d0") + ": kyber"});
}

TEST_F(DiskTest, LooksAtTheDisksThatStayWithTheMachine)
{
	for (const unsigned type : {0x01U, 0x02U, 0x04U, 0x08U, 0x10U, 0x20U, 0x40U}) {
		Add("disk" + std::to_string(type), 1, "none\n");
		storage.disks.back().type = type;
	}
	EXPECT_EQ(Apply("ssd_scheduler=none\n"), 0);
	EXPECT_EQ(writes.Lines(), (Lines{SchedulerFile("disk1") + ": none", SchedulerFile("disk2") + ": none",
	                                 SchedulerFile("disk4") + ": none", SchedulerFile("disk8") + ": none",
	                                 SchedulerFile("disk32") + ": none"}));
}

TEST_F(DiskTest, PassesOverWhatIsNoSSDOrCannotBeTold)
{
	AddThree();
	for (const int answer : {0, -1, 2, -2}) {
		SCOPED_TRACE(answer);
		storage.isSSD["/dev/sdb"] = answer;
		fs::remove(SchedulerFile("sdb")); // which nobody opens
		kit::WriteFile(SchedulerFile("sda"), "none ");
		kit::WriteFile(SchedulerFile("sdc"), "none ");
		EXPECT_EQ(Apply("ssd_scheduler=none\n"), 0);
	}
	EXPECT_EQ(writes.Lines().size(), 8U);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(DiskTest, HasNothingToDoWithRotatingDisksOnlyOrWithoutDisks)
{
	EXPECT_EQ(Apply("ssd_scheduler=none\n"), 0);
	Add("sda", 0, "[mq-deadline] none\n");
	Add("sdb", 0, "[mq-deadline] none\n");
	EXPECT_EQ(Apply("ssd_scheduler=none\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(DiskTest, SelectsTheActiveSchedulerAgainAndNoneThatIsNotOffered)
{
	Add("sda", 1, "noop deadline [cfq]\n");
	Add("sdb", 1, "noop deadline [bfq]\n");
	EXPECT_EQ(Apply("ssd_scheduler=cfq\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{SchedulerFile("sda") + ": cfq"});
	EXPECT_EQ(kit::ReadFile(SchedulerFile("sdb")), "noop deadline [bfq]\n");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(DiskTest, KnowsWhatASchedulerFileOffers)
{
	const std::string file = dir.Path("scheduler");
	std::string longLine;
	for (int i = 0; i < 20000; ++i)
		longLine += "scheduler" + std::to_string(i) + " ";
	const struct {
		std::string text;
		Lines offered;
		Lines notOffered;
	} rows[] = {
		{"noop deadline [cfq]\n",
	         {"noop", "deadline", "cfq"},
	         {"bfq", "", " ", "CFQ", "Noop", "cf", "cfqq", "oop", "[cfq]", "noop deadline", "cfq\n"}},
		{"[none] mq-deadline", {"none", "mq-deadline"}, {"mq", "deadline"}}, // no newline at the end
		{"none\n", {"none"}, {"non"}},
		{"", {}, {"none", ""}},
		{"\n\n \n[]\n", {}, {"none", "", " "}},
		{"first [second]\nthird\n\n[fourth] fifth",
	         {"first", "second", "third", "fourth", "fifth"},
	         {"second third", "secondthird", "sixth"}},
		{"a[b]c\n", {"a", "b", "c"}, {"a[b]c"}},
		{"tab\tbed\n", {"tab\tbed"}, {"tab", "bed"}},
		{"windows\r\n", {"windows\r"}, {"windows"}},
		{std::string("before\0after\nnext\n", 18), {"before", "next"}, {"after"}},
		{longLine, {"scheduler0", "scheduler19999"}, {"scheduler20000"}},
		{"x\n" + longLine + "\nlast", {"x", "scheduler19999", "last"}, {"y"}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text.substr(0, 40));
		kit::WriteFile(file, row.text);
		for (const std::string &scheduler : row.offered)
			EXPECT_EQ(TuneCheckSchedulerSupport(file.c_str(), scheduler.c_str()), 1) << scheduler;
		for (const std::string &scheduler : row.notOffered)
			EXPECT_EQ(TuneCheckSchedulerSupport(file.c_str(), scheduler.c_str()), 0) << scheduler;
	}
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(DiskTest, ReadsASchedulerFileUpToTheLineWithTheScheduler)
{
	const std::string file = dir.Path("scheduler");
	kit::WriteFile(file, "[none]\nbfq\nkyber\n");
	{
		const kit::Fault fault("VUNKCStrTok", 3);
		EXPECT_EQ(TuneCheckSchedulerSupport(file.c_str(), "bfq"), 1);
		EXPECT_FALSE(fault.Struck());
	}
	const kit::Fault fault("VUNKCStrTok", 2);
	EXPECT_EQ(TuneCheckSchedulerSupport(file.c_str(), "bfq"), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Failed to VUNKCStrTok with [bfq\n]" + kFault});
}

TEST_F(DiskTest, WritesNothingForAnEmptyScheduler)
{
	AddThree();
	EXPECT_EQ(Apply("ssd_scheduler=\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(DiskTest, CutsAPathThatIsTooLong)
{
	std::string name;
	while (name.size() < 2000)
		name += std::string(100, 'n') + '/';
	const std::string cut = SchedulerFile(name).substr(0, 1023);
	kit::WriteFile(cut, "none\n");
	storage.disks = {{name, "/dev/sda"}};
	storage.isSSD["/dev/sda"] = 1;
	EXPECT_EQ(Apply("ssd_scheduler=none\n"), 0);
	EXPECT_EQ(writes.Lines(), Lines{cut + ": none"});
}

TEST_F(DiskTest, ListsTheDisksForEveryKeyAlsoThoseWithoutEffect)
{
	AddThree();
	EXPECT_EQ(Apply("a=1\nSSD_scheduler=none\nssd_scheduler2=none\nssd_scheduler=none\nz=\n"), 0);
	EXPECT_EQ(storage.calls, (Lines{"DiskInfoEnum 0x2f", "DiskInfoEnum 0x2f", "DiskInfoEnum 0x2f",
	                                "DiskInfoEnum 0x2f", "ZEVODiskIsSSD /dev/sda", "ZEVODiskIsSSD /dev/sdb",
	                                "ZEVODiskIsSSD /dev/sdc", "DiskInfoEnum 0x2f"}));
	EXPECT_EQ(writes.Lines().size(), 3U);
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(DiskTest, ListsNothingForASectionWithoutKeys)
{
	AddThree();
	EXPECT_EQ(Apply(""), 0);
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(DiskTest, FailsWhenTheDisksCannotBeListedWhateverTheKey)
{
	AddThree();
	for (const std::string pair : {"no_effect 1", "ssd_scheduler none"}) {
		SCOPED_TRACE(pair);
		journal.Clear();
		const kit::Fault fault("DiskInfoEnum");
		std::string line = pair;
		line.replace(pair.find(' '), 1, "=");
		EXPECT_EQ(Apply(line + "\nlater=1\n"), -1);
		EXPECT_EQ(journal.Lines(),
		          (Lines{"utils.cpp Failed to enum disks" + kFault,
		                 "utils.cpp Failed to TuneApplyDiskByKeyValue [" + pair + "]." + kFault}));
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	EXPECT_EQ(storage.calls, Lines{});
}

// The second of three disks fails: the first keeps its new scheduler, the third its old one.
TEST_F(DiskTest, StopsAtTheFirstDiskThatFails)
{
	const std::string at = SchedulerFile("sdb");
	const struct {
		const char *function; // that fails
		int nth;
		std::string path; // that cannot be opened for writing, in place of that
		std::string line;
		std::string code;
	} rows[] = {
		{"VUNKCSzListAlloc", 3, "", "Failed to VUNKCSzListAlloc" + kFault,
	         kFault}, // the first is the section's
		{"VUNKCStrTok", 2, "", "Failed to VUNKCStrTok with [[mq-deadline] none\n]" + kFault, kFault},
		{"", 1, at, "TuneParameterWrite Can't open file " + at + ", errno:Permission denied[0x0000 :0]",
	         "[0x0000 :0]"},
		{"VUNKCWrite", 2, "",
	         "TuneParameterWrite Failed to set parameter [" + at + " none], errno:Invalid argument" + kFault,
	         kFault},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.line);
		storage.disks.clear();
		AddThree();
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		const kit::PathFault open("open", row.path, EACCES);
		const kit::Fault fault(row.function, row.nth, EINVAL);
		EXPECT_EQ(Apply("ssd_scheduler=none\n"), -1);
		EXPECT_EQ(journal.Lines(), LinesOf("sdb", row.line, row.code));
		EXPECT_EQ(kit::ReadFile(SchedulerFile("sda")).substr(0, 4), "none");
		EXPECT_EQ(kit::ReadFile(at), "[mq-deadline] none\n");
		EXPECT_EQ(kit::ReadFile(SchedulerFile("sdc")), "[mq-deadline] none\n");
	}
}

TEST_F(DiskTest, FailsWithoutASchedulerFileAndDoesNotMakeIt)
{
	AddThree();
	fs::remove(SchedulerFile("sdb"));
	EXPECT_EQ(Apply("ssd_scheduler=none\n"), -1);
	EXPECT_EQ(journal.Lines(), LinesOf("sdb",
	                                   "TuneCheckSchedulerSupport Can't open file " + SchedulerFile("sdb") +
	                                           ", errno:No such file or directory[0x0000 :0]",
	                                   "[0x0000 :0]"));
	EXPECT_FALSE(fs::exists(SchedulerFile("sdb")));
	EXPECT_EQ(writes.Lines(), Lines{SchedulerFile("sda") + ": none"});
}

TEST_F(DiskTest, FailsWhenASchedulerFileCannotBeRead)
{
	AddThree();
	fs::remove(SchedulerFile("sdb"));
	fs::create_directory(SchedulerFile("sdb")); // which can be opened
	EXPECT_EQ(Apply("ssd_scheduler=none\n"), -1);
	EXPECT_EQ(journal.Lines(), LinesOf("sdb", "", "[0x0000 :0]"));
	EXPECT_EQ(writes.Lines(), Lines{SchedulerFile("sda") + ": none"});
}

TEST_F(DiskTest, FailsForASSDWithoutAKernelName)
{
	AddThree();
	storage.disks[1].kernelName.reset();
	EXPECT_EQ(Apply("ssd_scheduler=none\n"), -1);
	EXPECT_EQ(journal.Lines(),
	          LinesOf("(null)", "Invaild Argument (__null != szDevName)=[0]\n", "[0x0D00 utils.cpp]"));
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(writes.Lines(), Lines{SchedulerFile("sda") + ": none"});
}

TEST_F(DiskTest, RefusesNull)
{
	AddThree();
	for (const auto &[key, value, condition] :
	     {std::tuple<const char *, const char *, std::string>(nullptr, "none", "__null != szKey"),
	      {"ssd_scheduler", nullptr, "NULL != szValue"},
	      {nullptr, nullptr, "__null != szKey"}}) {
		SCOPED_TRACE(condition);
		VUNKCErrSetEx(0, "", 0);
		journal.Clear();
		EXPECT_EQ(TuneApplyDiskByKeyValue(key, value, kernel), -1);
		EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Invaild Argument (" + condition + ")=[0]\n"});
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
	}
	EXPECT_EQ(storage.calls, Lines{});
}

TEST_F(DiskTest, FailsForAKeyWithoutAValue)
{
	AddThree();
	const kit::Fault fault("VUNKCSzHashGetValue");
	EXPECT_EQ(Apply("ssd_scheduler=none\n"), -1);
	EXPECT_EQ(journal.Lines(),
	          (Lines{"utils.cpp Invaild Argument (NULL != szValue)=[0]\n",
	                 "utils.cpp Failed to TuneApplyDiskByKeyValue [ssd_scheduler (null)].[0x0D00 utils.cpp]"}));
	EXPECT_EQ(storage.calls, Lines{});
}

TEST_F(DiskTest, FailsWhenTheSectionCannotBeRead)
{
	AddThree();
	ExpectToFailUnread("disk", "ssd_scheduler=none\n");
}

} // namespace
