#include "utils/apply/driver.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/storage.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

const std::string kRun = "/sbin/sysctl -we ";

class ApplyFile : public kit::LabTest {
protected:
	ApplyFile() { VUNKCErrSetEx(0, "", 0); }

	int Apply(std::string_view text)
	{
		kit::WriteFile(path, text);
		return TuneApplyProfileByPath(path.c_str(), kernel);
	}

	kit::TempDir dir;
	const std::string path = dir.Path("profile");
	kit::Journal journal;
	kit::Programs programs;
	KernelWriter kernel;
};

TEST_F(ApplyFile, RefusesANullPath)
{
	EXPECT_EQ(TuneApplyProfileByPath(nullptr, kernel), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Invaild Argument (__null != szProfilePath)=[0]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(ApplyFile, HasNothingToDoForMainAlone)
{
	EXPECT_EQ(Apply("[main]\nname=a\nvm_memory_max=1\n"), 0);
	EXPECT_EQ(programs.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ApplyFile, NeedsNeitherANameNorAPlaceInTheCatalogue)
{
	EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.swappiness=1\n"), 0);
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.swappiness=1"});
}

TEST_F(ApplyFile, IgnoresSectionsThatNobodyHandles)
{
	const kit::FakeStorage storage;
	EXPECT_EQ(Apply("[main]\n[Disk]\na=1\n[SYSCTL]\nb=2\n[volume2]\nzevo_writeback_thread_max=3\n"
	                "[Main]\ninherit=x\n[sysctl2]\nd=4\n[sys]\ne=5\n[notes]\nf=6\n[DISK]\ng=7\n[disks]\nh=8\n"
	                "[Volume]\nzevo_writeback_thread_max=9\n[raid]\ni=10\n[RAID_CFQ_1]\nj=11\n"
	                "[sysctl]\nvm.swappiness=1\n"),
	          0);
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.swappiness=1"});
	EXPECT_EQ(storage.calls, Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ApplyFile, HandsEverySectionForRaidOnWhateverTheNameEndsWith)
{
	const kit::FakeStorage storage;
	EXPECT_EQ(Apply("[main]\n[raid_cfq]\na=1\n[raid_cfqX]\na=1\n[raid_cfq_1]\na=1\nb=2\n"), 0);
	EXPECT_EQ(storage.calls, (Lines{"RAIDInfoEnum", "VUNKCSupportRAID", "RAIDInfoEnum", "VUNKCSupportRAID",
	                                "RAIDInfoEnum", "VUNKCSupportRAID", "RAIDInfoEnum", "VUNKCSupportRAID"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ApplyFile, AppliesSectionsInFileOrder)
{
	kit::Install(kit::kShippedDir, "b", "[main]\nname=b\n[sysctl]\nvm.swappiness=2\n");
	EXPECT_EQ(Apply("[sysctl]\nvm.swappiness=1\n[main]\ninherit=b\n"), 0);
	EXPECT_EQ(Apply("[main]\ninherit=b\n[sysctl]\nvm.swappiness=1\n"), 0);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.swappiness=1", kRun + "vm.swappiness=2", // sysctl before main
	                                   kRun + "vm.swappiness=2", kRun + "vm.swappiness=1"}));
}

TEST_F(ApplyFile, AppliesASectionAsOftenAsItsHeaderOccurs)
{
	kit::Install(kit::kShippedDir, "b", "[main]\nname=b\n[sysctl]\nvm.b=2\n");
	EXPECT_EQ(Apply("[main]\ninherit=b\n[sysctl]\nvm.x=1\n[main]\n[sysctl]\nvm.y=2\n"), 0);
	// Each time with the pairs of all its occurrences.
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.b=2", kRun + "vm.x=1", kRun + "vm.y=2", kRun + "vm.b=2",
	                                   kRun + "vm.x=1", kRun + "vm.y=2"}));
}

TEST_F(ApplyFile, DoesNotApplyAFileThatIsNoProfileAtAll)
{
	const struct {
		const char *text;
		std::string tail;
	} rows[] = {
		{"[sysctl]\nvm.swappiness=1\n", "[0x1600 " + path + ":0]"},
		{"[sysctl]\nvm.swappiness=1\n[main]\nname\n", "[0x1500 " + path + ":4]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.text);
		journal.Clear();
		EXPECT_EQ(Apply(row.text), -1);
		EXPECT_EQ(journal.Lines(),
		          (Lines{"utils.cpp Failed to get section [main] from path [" + path + "]. " + row.tail,
		                 "utils.cpp Failed to TuneLoadProfileByPath [" + path + "]." + row.tail}));
	}
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(ApplyFile, FailsWhereTheCoreLibraryFails)
{
	const std::string code = "[0xFA17 fault:1]";
	const std::string load = "utils.cpp Failed to TuneLoadProfileByPath [" + path + "]." + code;
	const std::string mainLine = "utils.cpp Failed to Apply Profile [" + path + "] Main" + code;
	const std::string sysctlLine = "utils.cpp Failed to Apply Profile [" + path + "] Sysctl" + code;
	const auto section = [&](const std::string &name) {
		return "utils.cpp Failed to get section [" + name + "] from path [" + path + "]. " + code;
	};
	const std::string hash = "utils.cpp Failed to VUNKCSzHashAlloc()." + code;
	const struct {
		const char *function;
		int nth;
		Lines lines;
	} rows[] = {
		{"VUNKCSzListAlloc", 1, {"utils.cpp Failed to VUNKCSzListAlloc" + code}},
		{"VUNKCSzHashAlloc", 1, {hash, load}},
		{"VUNKCSzListAlloc", 2, {"utils.cpp VUNKCSzListAlloc failed", load}},
		{"VUNKCFileEnumSection", 1, {"utils.cpp Failed to VUNKCFileEnumSection" + code}},
		{"VUNKCSzHashAlloc", 2, {hash, mainLine}},
		{"VUNKCFileGetSection", 2, {section("main"), mainLine}},
		{"VUNKCSzHashAlloc", 3, {hash, sysctlLine}},
		{"VUNKCSzListAlloc", 3, {"utils.cpp Failed to VUNKCSzListAlloc" + code, sysctlLine}},
		{"VUNKCFileGetSection", 3, {section("sysctl"), sysctlLine}},
		{"VUNKCSzHashEnumKey", 2, {"utils.cpp Failed to enum hash key", sysctlLine}},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function + std::to_string(row.nth));
		journal.Clear();
		const kit::Fault fault(row.function, row.nth);
		EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.swappiness=1\n"), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), row.lines);
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(programs.Lines(), Lines{});
	}
}

TEST_F(ApplyFile, StopsAtTheFirstSectionThatFailsAndKeepsTheOnesBefore)
{
	const std::string text = "[sysctl]\nvm.swappiness=1\n[main]\ninherit=missing\n[sysctl]\nvm.swappiness=2\n";
	EXPECT_EQ(Apply(text), -1);
	EXPECT_EQ(programs.Lines(),
	          Lines{kRun + "vm.swappiness=2"}); // the first of the two occurrences, with all pairs
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to find the profile [missing].[0x0000 :0]",
	                                  "utils.cpp Failed to apply inherit profile [missing].[0x0000 :0]",
	                                  "utils.cpp Failed to Apply Profile [" + path + "] Main[0x0000 :0]"}));
	EXPECT_EQ(VUNKCErrGet(), 0);
}

TEST_F(ApplyFile, TakesAnEmptyInheritForAName)
{
	EXPECT_EQ(Apply("[main]\ninherit=\n"), -1);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to find the profile [].[0x0000 :0]",
	                                  "utils.cpp Failed to apply inherit profile [].[0x0000 :0]",
	                                  "utils.cpp Failed to Apply Profile [" + path + "] Main[0x0000 :0]"}));
	// A profile without a name has that name.
	kit::Install(kit::kShippedDir, "nameless", "[main]\n[sysctl]\nvm.swappiness=3\n");
	EXPECT_EQ(Apply("[main]\ninherit=\n"), 0);
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.swappiness=3"});
}

TEST_F(ApplyFile, DoesNotFailForAKernelParameterThatCannotBeSet)
{
	const kit::Fault fault("VUNKCExec");
	EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.a=1\nvm.b=2\n"), 0);
	EXPECT_TRUE(fault.Struck());
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.a=1", kRun + "vm.b=2"}));
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to sysctl [vm.a=1].[0xFA17 fault:1]",
	                                  "utils.cpp Failed to TuneApplyOneSysctl.[0xFA17 fault:1]"}));
}

} // namespace
