#include "utils/apply/sysctl.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "utils/profile_file.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include <sys/mount.h>
#include <sys/sysinfo.h>

namespace {

using Lines = std::vector<std::string>;

const std::string kRun = "/sbin/sysctl -we ";

class SysctlTest : public kit::LabTest {
protected:
	SysctlTest() { VUNKCErrSetEx(0, "", 0); }

	// Applies section "sysctl" of a file of this text.
	int Apply(std::string_view text)
	{
		path = dir.Path("profile");
		kit::WriteFile(path, text);
		Profile profile;
		EXPECT_EQ(TuneLoadProfileByPath(path.c_str(), profile), 0);
		return TuneApplySysctlSection({path.c_str(), "sysctl", profile, kernel});
	}

	kit::TempDir dir;
	std::string path;
	kit::Journal journal;
	KernelWriter kernel;
};

// A profile with this vm_memory_max.
Profile WithMemoryMax(const std::string &value)
{
	Profile profile;
	profile.main_section["vm_memory_max"] = value;
	return profile;
}

// While the object lives, /sbin/sysctl is a file that cannot be run.
class SysctlThatCannotRun {
public:
	SysctlThatCannotRun()
	{
		kit::WriteFile(dir.Path("sysctl"), "");
		mounted = mount(dir.Path("sysctl").c_str(), "/sbin/sysctl", nullptr, MS_BIND, nullptr) == 0;
	}
	~SysctlThatCannotRun()
	{
		if (mounted)
			umount2("/sbin/sysctl", MNT_DETACH);
	}

	bool mounted = false;

private:
	kit::TempDir dir;
};

TEST_F(SysctlTest, WritesEveryKeyToTheKernel)
{
	EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.swappiness=11\nvm.vfs_cache_pressure = 55\nvm.dirty_ratio=33\n"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "11");
	EXPECT_EQ(kit::Sysctl("vm.vfs_cache_pressure"), "55");
	EXPECT_EQ(kit::Sysctl("vm.dirty_ratio"), "33");
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(SysctlTest, RunsSysctlOnceForEachKeyInFileOrder)
{
	const kit::Programs programs;
	EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.b=2\nvm.a=\"1 2\t3\"\nkernel.c=\nvm.dirty_background_ratio=4\nvm.b=5\n"),
	          0);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.b=5", kRun + "vm.a=1 2\t3",
	                                   kRun + "kernel.c=", kRun + "vm.dirty_background_ratio=4"}));
}

TEST_F(SysctlTest, IsDoneWithAnEmptySection)
{
	const kit::Programs programs;
	EXPECT_EQ(Apply("[main]\n[sysctl]\n"), 0);
	EXPECT_EQ(programs.Lines(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(SysctlTest, PassesOverAKeyThatTheKernelDoesNotKnow)
{
	EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.swappiness=11\nvm.no_such_parameter=1\nvm.vfs_cache_pressure=55\n"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "11");
	EXPECT_EQ(kit::Sysctl("vm.vfs_cache_pressure"), "55");
	EXPECT_FALSE(std::filesystem::exists("/proc/sys/vm/no_such_parameter"));
	EXPECT_EQ(journal.Lines(), Lines{}); // sysctl -e does not count it as a failure
}

TEST_F(SysctlTest, LogsAKeyThatCannotBeWrittenAndGoesOn)
{
	// /proc/sys/kernel is read-only in here.
	const std::string before = kit::Sysctl("kernel.panic");
	EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.swappiness=11\nkernel.panic=77\nvm.vfs_cache_pressure=55\n"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), "11");
	EXPECT_EQ(kit::Sysctl("kernel.panic"), before);
	EXPECT_EQ(kit::Sysctl("vm.vfs_cache_pressure"), "55");
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to sysctl [kernel.panic=77].[0x1900 program.cpp]",
	                                  "utils.cpp Failed to TuneApplyOneSysctl.[0x1900 program.cpp]"}));
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXIT_STATUS);
}

TEST_F(SysctlTest, LogsADirtyRatioThatCannotBeWrittenAndGoesOn)
{
	const kit::Programs programs;
	const kit::Fault fault("VUNKCExec");
	EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.dirty_ratio=20\nvm.swappiness=11\n"), 0);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + "vm.dirty_ratio=20", kRun + "vm.swappiness=11"}));
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to sysctl [vm.dirty_ratio=20].[0xFA17 fault:1]",
	                                  "utils.cpp Failed to TuneApplySysctlVMDirty.[0xFA17 fault:1]"}));
}

TEST_F(SysctlTest, LogsEveryKeyWhereSysctlCannotBeRun)
{
	const SysctlThatCannotRun sysctl;
	ASSERT_TRUE(sysctl.mounted);
	const std::string before = kit::Sysctl("vm.swappiness");
	EXPECT_EQ(Apply("[main]\n[sysctl]\nvm.swappiness=11\nvm.dirty_ratio=20\n"), 0);
	EXPECT_EQ(kit::Sysctl("vm.swappiness"), before);
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to sysctl [vm.swappiness=11].[0x1800 program.cpp]",
	                                  "utils.cpp Failed to TuneApplyOneSysctl.[0x1800 program.cpp]",
	                                  "utils.cpp Failed to sysctl [vm.dirty_ratio=20].[0x1800 program.cpp]",
	                                  "utils.cpp Failed to TuneApplySysctlVMDirty.[0x1800 program.cpp]"}));
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_EXEC);
}

TEST_F(SysctlTest, FailsAsAWholeOnlyWhenItCannotBeRead)
{
	const std::string file = dir.Path("profile");
	const struct {
		const char *function;
		int nth; // the ones before are the loading of the file
		std::string line;
		int code;
	} rows[] = {
		{"VUNKCSzHashAlloc", 2, "utils.cpp Failed to VUNKCSzHashAlloc().[0xFA17 fault:1]", kit::kFaultCode},
		{"VUNKCSzListAlloc", 2, "utils.cpp Failed to VUNKCSzListAlloc[0xFA17 fault:1]", kit::kFaultCode},
		{"VUNKCFileGetSection", 2,
	         "utils.cpp Failed to get section [sysctl] from path [" + file + "]. [0xFA17 fault:1]",
	         kit::kFaultCode},
		{"VUNKCSzHashEnumKey", 2, "utils.cpp Failed to enum hash key", kit::kFaultCode},
		{"", 1, "utils.cpp Failed to get section [sysctl] from path [" + file + "]. [0x1600 " + file + ":0]",
	         VUNKC_ERR_SECTION_MISSING},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.line);
		journal.Clear();
		const kit::Programs programs;
		const kit::Fault fault(row.function, row.nth);
		const bool isThere = row.code == kit::kFaultCode;
		EXPECT_EQ(Apply(isThere ? "[main]\n[sysctl]\nvm.swappiness=11\n" : "[main]\n"), -1);
		EXPECT_EQ(fault.Struck(), isThere);
		EXPECT_EQ(journal.Lines(), Lines{row.line});
		EXPECT_EQ(VUNKCErrGet(), row.code);
		EXPECT_EQ(programs.Lines(), Lines{});
	}
}

TEST_F(SysctlTest, LogsAKeyWithoutAValueAndGoesOn)
{
	const char *text = "[main]\n[sysctl]\nvm.dirty_ratio=20\nvm.swappiness=11\n";
	constexpr int kAskedForByLoading = 6; // as many keys as a record has fields for
	const struct {
		int nth;
		std::string line;
		std::string written;
	} rows[] = {
		{1, "utils.cpp Failed to TuneApplySysctlVMDirty.[0x0D00 utils.cpp]", kRun + "vm.swappiness=11"},
		{2, "utils.cpp Failed to TuneApplyOneSysctl.[0x0D00 utils.cpp]", kRun + "vm.dirty_ratio=20"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.nth);
		journal.Clear();
		const kit::Programs programs;
		const kit::Fault fault("VUNKCSzHashGetValue", kAskedForByLoading + row.nth);
		EXPECT_EQ(Apply(text), 0);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Invaild Argument (NULL != szValue)=[0]\n", row.line}));
		EXPECT_EQ(VUNKCErrGet(), 0xD00);
		EXPECT_EQ(programs.Lines(), Lines{row.written});
	}
}

TEST_F(SysctlTest, LogsADirtyRatioWhenTheMemoryCannotBeFoundOutAndGoesOn)
{
	const kit::Programs programs;
	const kit::Fault fault("sysinfo");
	EXPECT_EQ(Apply("[main]\nvm_memory_max=1\n[sysctl]\nvm.dirty_ratio=20\nvm.swappiness=11\n"), 0);
	EXPECT_TRUE(fault.Struck());
	EXPECT_EQ(programs.Lines(), Lines{kRun + "vm.swappiness=11"});
	EXPECT_EQ(journal.Lines(),
	          (Lines{"utils.cpp Failed to get system information, errno=Input/output error[0x0000 :0]",
	                 "utils.cpp Failed to TuneApplySysctlVMDirty.[0x0000 :0]"}));
}

TEST_F(SysctlTest, RefusesNullValues)
{
	const kit::Programs programs;
	const Lines line = {"utils.cpp Invaild Argument (NULL != szValue)=[0]\n"};
	EXPECT_EQ(TuneApplyOneSysctl("vm.swappiness", nullptr, kernel), -1);
	EXPECT_EQ(journal.Lines(), line);
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	journal.Clear();
	VUNKCErrSetEx(0, "", 0);
	EXPECT_EQ(TuneApplySysctlVMDirty("vm.dirty_ratio", nullptr, Profile(), kernel), -1);
	EXPECT_EQ(journal.Lines(), line);
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(programs.Lines(), Lines{});
}

TEST_F(SysctlTest, ReportsTheRunnersFailure)
{
	for (const char *key : {"vm.dirty_ratio", "vm.swappiness"}) {
		journal.Clear();
		const kit::Programs programs;
		const kit::Fault fault("VUNKCExec");
		EXPECT_EQ(key == std::string("vm.dirty_ratio") ? TuneApplySysctlVMDirty(key, "1", Profile(), kernel)
		                                               : TuneApplyOneSysctl(key, "1", kernel),
		          -1);
		EXPECT_EQ(journal.Lines(),
		          Lines{"utils.cpp Failed to sysctl [" + std::string(key) + "=1].[0xFA17 fault:1]"});
	}
}

TEST_F(SysctlTest, CutsAnArgumentAfter1023Bytes)
{
	const std::string argument = "vm.swappiness=" + std::string(2000, '1');
	const kit::Programs programs;
	EXPECT_EQ(TuneApplyOneSysctl("vm.swappiness", std::string(2000, '1').c_str(), kernel), 0);
	EXPECT_EQ(TuneApplySysctlVMDirty("vm.dirty_ratio", std::string(2000, '2').c_str(), Profile(), kernel), 0);
	EXPECT_EQ(programs.Lines(), (Lines{kRun + argument.substr(0, 1023),
	                                   kRun + ("vm.dirty_ratio=" + std::string(2000, '2')).substr(0, 1023)}));
}

// What becomes of the two ratios.
class DirtyMemory : public SysctlTest {
protected:
	std::string Written(const char *key, const char *value, const Profile &profile)
	{
		const kit::Programs programs;
		EXPECT_EQ(TuneApplySysctlVMDirty(key, value, profile, kernel), 0);
		return programs.Lines().size() == 1 ? programs.Lines()[0].substr(kRun.size())
		                                    : "nothing, or more than one";
	}
};

constexpr unsigned long kGiB = 1024ul * 1024 * 1024;

TEST_F(DirtyMemory, StaysARatioWithoutAMemoryMaximumWhateverTheMemory)
{
	for (const unsigned long totalram : {1ul, 8 * kGiB, std::numeric_limits<unsigned long>::max()}) {
		const kit::Memory memory(totalram);
		EXPECT_EQ(Written("vm.dirty_ratio", "20", Profile()), "vm.dirty_ratio=20");
		EXPECT_EQ(Written("vm.dirty_background_ratio", "10", Profile()), "vm.dirty_background_ratio=10");
	}
}

TEST_F(DirtyMemory, NeedsNoMemorySizeWithoutAMemoryMaximum)
{
	const kit::Fault fault("sysinfo");
	EXPECT_EQ(Written("vm.dirty_ratio", "20", Profile()), "vm.dirty_ratio=20");
	EXPECT_FALSE(fault.Struck());
}

TEST_F(DirtyMemory, BecomesBytesOnlyWhereTheMemoryIsLargerThanTheMaximum)
{
	const Profile profile = WithMemoryMax("8589934592");
	const struct {
		unsigned long totalram;
		const char *foreground;
		const char *background;
	} rows[] = {
		{8 * kGiB - 1, "vm.dirty_ratio=20", "vm.dirty_background_ratio=10"},
		{8 * kGiB, "vm.dirty_ratio=20", "vm.dirty_background_ratio=10"},
		{8 * kGiB + 1, "vm.dirty_bytes=1717986918", "vm.dirty_background_bytes=858993459"},
		{64 * kGiB, "vm.dirty_bytes=1717986918", "vm.dirty_background_bytes=858993459"},
	};
	for (const auto &row : rows) {
		const kit::Memory memory(row.totalram);
		EXPECT_EQ(Written("vm.dirty_ratio", "20", profile), row.foreground) << row.totalram;
		EXPECT_EQ(Written("vm.dirty_background_ratio", "10", profile), row.background) << row.totalram;
	}
}

TEST_F(DirtyMemory, TakesTheSizeOfMemoryWithoutItsUnit)
{
	const kit::Memory memory(1000, 4096);
	EXPECT_EQ(Written("vm.dirty_ratio", "20", WithMemoryMax("1000")), "vm.dirty_ratio=20");
	EXPECT_EQ(Written("vm.dirty_ratio", "20", WithMemoryMax("999")), "vm.dirty_bytes=199");
}

TEST_F(DirtyMemory, ReadsTheMaximumAsAnUnsignedNumber)
{
	const kit::Memory memory(1000);
	const struct {
		const char *maximum;
		const char *written;
	} rows[] = {
		{"", "vm.dirty_bytes=0"},
		{"abc", "vm.dirty_bytes=0"},
		{"0", "vm.dirty_bytes=0"},
		{"500M", "vm.dirty_bytes=100"},
		{" 500", "vm.dirty_bytes=100"},
		{"0500", "vm.dirty_bytes=100"},
		{"0x500", "vm.dirty_bytes=0"},
		{"-1", "vm.dirty_ratio=20"},
		{"99999999999999999999", "vm.dirty_ratio=20"},
	};
	for (const auto &row : rows)
		EXPECT_EQ(Written("vm.dirty_ratio", "20", WithMemoryMax(row.maximum)), row.written) << row.maximum;
}

TEST_F(DirtyMemory, ReadsTheRatioAsANumberOnlyWhenItIsConverted)
{
	const struct {
		const char *ratio;
		const char *bytes;
	} rows[] = {
		{"20%", "vm.dirty_bytes=1000"},  {"20 percent", "vm.dirty_bytes=1000"},
		{"", "vm.dirty_bytes=0"},        {"abc", "vm.dirty_bytes=0"},
		{"0", "vm.dirty_bytes=0"},       {" 7", "vm.dirty_bytes=350"},
		{"200", "vm.dirty_bytes=10000"},
	};
	for (const auto &row : rows) {
		{
			const kit::Memory larger(5001);
			EXPECT_EQ(Written("vm.dirty_ratio", row.ratio, WithMemoryMax("5000")), row.bytes) << row.ratio;
		}
		const kit::Memory equal(5000);
		EXPECT_EQ(Written("vm.dirty_ratio", row.ratio, WithMemoryMax("5000")),
		          std::string("vm.dirty_ratio=") + row.ratio);
	}
}

TEST_F(DirtyMemory, DropsTheRemainderOfTheDivision)
{
	const kit::Memory memory(1000);
	EXPECT_EQ(Written("vm.dirty_ratio", "33", WithMemoryMax("299")), "vm.dirty_bytes=98"); // 98.67
	EXPECT_EQ(Written("vm.dirty_ratio", "99", WithMemoryMax("1")), "vm.dirty_bytes=0");
}

TEST_F(DirtyMemory, CountsIn64BitsThatWrap)
{
	const kit::Memory memory(std::numeric_limits<unsigned long>::max());
	// 3 * 2^63 is 2^63 again.
	EXPECT_EQ(Written("vm.dirty_ratio", "3", WithMemoryMax("9223372036854775808")),
	          "vm.dirty_bytes=92233720368547758");
	// -100 as 2^64 - 100.
	EXPECT_EQ(Written("vm.dirty_background_ratio", "-1", WithMemoryMax("100")),
	          "vm.dirty_background_bytes=184467440737095515");
}

TEST_F(DirtyMemory, IsMeantByTheseTwoKeysAlone)
{
	const kit::Memory memory(8 * kGiB);
	const kit::Programs programs;
	EXPECT_EQ(Apply("[main]\nvm_memory_max=1000\n[sysctl]\n"
	                "vm.dirty_ratio=20\n"
	                "vm.dirty_background_ratio=10\n"
	                "vm/dirty_ratio=1\n"
	                "VM.dirty_ratio=2\n"
	                "vm.dirty_ratio2=3\n"
	                "vm.dirty=4\n"
	                "vm.dirty_bytes=5\n"),
	          0);
	EXPECT_EQ(programs.Lines(),
	          (Lines{kRun + "vm.dirty_bytes=200", kRun + "vm.dirty_background_bytes=100", kRun + "vm/dirty_ratio=1",
	                 kRun + "VM.dirty_ratio=2", kRun + "vm.dirty_ratio2=3", kRun + "vm.dirty=4",
	                 kRun + "vm.dirty_bytes=5"}));
}

TEST_F(DirtyMemory, WritesBytesInPlaceOfTheRatiosToTheKernel)
{
	const kit::Memory memory(16 * kGiB);
	const std::string ratio = kit::Sysctl("vm.dirty_ratio");
	const std::string backgroundRatio = kit::Sysctl("vm.dirty_background_ratio");
	EXPECT_EQ(
		Apply("[main]\nvm_memory_max=8589934592\n[sysctl]\nvm.dirty_ratio=21\nvm.dirty_background_ratio=11\n"),
		0);
	EXPECT_EQ(kit::Sysctl("vm.dirty_bytes"), "1803886264");
	EXPECT_EQ(kit::Sysctl("vm.dirty_background_bytes"), "944892805");
	EXPECT_EQ(kit::Sysctl("vm.dirty_ratio"), ratio);
	EXPECT_EQ(kit::Sysctl("vm.dirty_background_ratio"), backgroundRatio);
}

TEST_F(DirtyMemory, IsLargerThanOneByteOnThisMachineAsWell)
{
	kit::WriteFile("/proc/sys/vm/dirty_bytes", "77\n");
	const std::string ratio = kit::Sysctl("vm.dirty_ratio");
	EXPECT_EQ(Apply("[main]\nvm_memory_max=1\n[sysctl]\nvm.dirty_ratio=20\n"), 0);
	EXPECT_EQ(kit::Sysctl("vm.dirty_bytes"), "0");
	EXPECT_EQ(kit::Sysctl("vm.dirty_ratio"), ratio);
}

TEST_F(DirtyMemory, OfThisMachineIsNotLargerThanItself)
{
	struct sysinfo info;
	ASSERT_EQ(sysinfo(&info), 0);
	EXPECT_EQ(Apply("[main]\nvm_memory_max=" + std::to_string(info.totalram) + "\n[sysctl]\nvm.dirty_ratio=23\n"),
	          0);
	EXPECT_EQ(kit::Sysctl("vm.dirty_ratio"), "23");
}

} // namespace
