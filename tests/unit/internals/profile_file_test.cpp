#include "utils/profile_file.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;
using Section = std::map<std::string, std::string>;

class ProfileFile : public kit::LabTest {
protected:
	ProfileFile() { VUNKCErrSetEx(0, "", 0); }

	std::string Write(std::string_view text)
	{
		const std::string path = dir.Path("profile");
		kit::WriteFile(path, text);
		return path;
	}

	Profile Loaded(std::string_view text)
	{
		Profile profile;
		EXPECT_EQ(TuneLoadProfileByPath(Write(text).c_str(), profile), 0) << text;
		return profile;
	}

	kit::TempDir dir;
	kit::Journal journal;
};

TEST_F(ProfileFile, GivesEveryKeyOfMain)
{
	const Profile profile = Loaded("[sysctl]\n"
	                               "vm.swappiness=1\n"
	                               "[main]\n"
	                               "name=fast\n"
	                               "inherit=slow\n"
	                               "profile_title_i18n=tuned:fast_title\n"
	                               "profile_desc_i18n=tuned:fast_desc\n"
	                               "ui=true\n"
	                               "index=12\n"
	                               "vm_memory_max=8589934592\n"
	                               "anything=else\n");
	EXPECT_EQ(profile.name, "fast");
	EXPECT_EQ(profile.inherit, "slow");
	EXPECT_EQ(profile.profile_title_i18n, "tuned:fast_title");
	EXPECT_EQ(profile.profile_desc_i18n, "tuned:fast_desc");
	EXPECT_TRUE(profile.ui);
	EXPECT_EQ(profile.index, 12);
	EXPECT_EQ(profile.main_section, (Section{{"anything", "else"},
	                                         {"index", "12"},
	                                         {"inherit", "slow"},
	                                         {"name", "fast"},
	                                         {"profile_desc_i18n", "tuned:fast_desc"},
	                                         {"profile_title_i18n", "tuned:fast_title"},
	                                         {"ui", "true"},
	                                         {"vm_memory_max", "8589934592"}}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(ProfileFile, HasDefaultsForAllThatANameAloneLeavesOut)
{
	const Profile profile = Loaded("[main]\nname=plain\n");
	EXPECT_EQ(profile.name, "plain");
	EXPECT_EQ(profile.inherit, "");
	EXPECT_EQ(profile.profile_title_i18n, "");
	EXPECT_EQ(profile.profile_desc_i18n, "");
	EXPECT_FALSE(profile.ui);
	EXPECT_EQ(profile.index, -1);
	EXPECT_EQ(profile.main_section, (Section{{"name", "plain"}}));
}

TEST_F(ProfileFile, NeedsNoKeyAtAll)
{
	const Profile profile = Loaded("[main]\n");
	EXPECT_EQ(profile.name, "");
	EXPECT_EQ(profile.index, -1);
	EXPECT_EQ(profile.main_section, Section{});
	EXPECT_EQ(profile.path, dir.Path("profile"));
}

TEST_F(ProfileFile, TellsAnEmptyValueFromAMissingKeyInMainSectionOnly)
{
	const Profile profile = Loaded("[main]\nname=a\ninherit=\n");
	EXPECT_EQ(profile.inherit, "");
	EXPECT_EQ(profile.main_section, (Section{{"inherit", ""}, {"name", "a"}}));
}

TEST_F(ProfileFile, ReadsTheIndexUpToTheFirstNonDigit)
{
	const struct {
		const char *value;
		int index;
	} rows[] = {
		{"7", 7},
		{"7abc", 7},
		{"abc", 0},
		{"", 0},
		{"\" -3\"", -3},
		{"+4", 4},
		{"0x10", 0},
		{"12 34", 12},
		{"2147483647", 2147483647},
		// Only the low half of the number is kept, also of the one that strtol saturates to.
		{"2147483648", -2147483647 - 1},
		{"4294967298", 2},
		{"99999999999999999999", -1},
		{"-99999999999999999999", 0},
	};
	for (const auto &row : rows)
		EXPECT_EQ(Loaded(std::string("[main]\nindex=") + row.value).index, row.index) << row.value;
}

TEST_F(ProfileFile, IsForTheUserInterfaceOnlyWhenUiIsExactlyTrue)
{
	for (const char *value : {"TRUE", "True", "yes", "1", "false", "", "\"true \"", "truely"})
		EXPECT_FALSE(Loaded(std::string("[main]\nui=") + value).ui) << value;
	EXPECT_TRUE(Loaded("[main]\nui=true").ui);
}

TEST_F(ProfileFile, HoldsARepeatedKeyOnceWithItsLastValue)
{
	const Profile profile = Loaded("[main]\nname=first\nindex=1\nname=second\n");
	EXPECT_EQ(profile.name, "second");
	EXPECT_EQ(profile.main_section, (Section{{"index", "1"}, {"name", "second"}}));
}

TEST_F(ProfileFile, KeepsThePathAsItWasGiven)
{
	Write("[main]\nname=a\n");
	const std::string path = dir.Path() + "//./profile";
	Profile profile;
	ASSERT_EQ(TuneLoadProfileByPath(path.c_str(), profile), 0);
	EXPECT_EQ(profile.path, path);
}

TEST_F(ProfileFile, ResetsAUsedRecordButForMainSectionWhichItAddsTo)
{
	Profile profile =
		Loaded("[main]\nname=old\ninherit=x\nprofile_title_i18n=x\nprofile_desc_i18n=x\nui=true\nindex=5\n");
	ASSERT_EQ(TuneLoadProfileByPath(Write("[main]\nname=new\nmore=y\n").c_str(), profile), 0);
	EXPECT_EQ(profile.name, "new");
	EXPECT_EQ(profile.inherit, "");
	EXPECT_EQ(profile.profile_title_i18n, "");
	EXPECT_EQ(profile.profile_desc_i18n, "");
	EXPECT_FALSE(profile.ui);
	EXPECT_EQ(profile.index, -1);
	EXPECT_EQ(profile.main_section, (Section{{"index", "5"},
	                                         {"inherit", "x"},
	                                         {"more", "y"},
	                                         {"name", "new"},
	                                         {"profile_desc_i18n", "x"},
	                                         {"profile_title_i18n", "x"},
	                                         {"ui", "true"}}));
}

TEST_F(ProfileFile, LeavesTheErrorStackAloneWhenAllIsWell)
{
	VUNKCErrSetEx(0x77, "elsewhere", 3);
	Loaded("[main]\nname=a\n");
	EXPECT_EQ(VUNKCErrGet(), 0x77);
	EXPECT_STREQ(VUNKCErrorGetFile(), "elsewhere");
}

TEST_F(ProfileFile, RefusesANullPathAndLeavesTheRecordAlone)
{
	Profile profile;
	profile.name = "kept";
	EXPECT_EQ(TuneLoadProfileByPath(nullptr, profile), -1);
	EXPECT_EQ(journal.Lines(), Lines{"utils.cpp Invaild Argument (__null != szPath)=[0]\n"});
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_EQ(profile.name, "kept");
}

TEST_F(ProfileFile, FailsWhereMainCannotBeReadAndLeavesPathEmpty)
{
	const std::string path = dir.Path("profile");
	const struct {
		const char *what;
		const char *text; // null for no file
		int code;
		std::string tail;
	} rows[] = {
		{"no main", "[volume]\na=1\n[disk]\nb=2\n", VUNKC_ERR_SECTION_MISSING, "[0x1600 " + path + ":0]"},
		{"main in capitals", "[Main]\nname=a\n", VUNKC_ERR_SECTION_MISSING, "[0x1600 " + path + ":0]"},
		{"empty", "", VUNKC_ERR_SECTION_MISSING, "[0x1600 " + path + ":0]"},
		{"broken line", "[main]\nname=a\n[disk]\ngarbage\n", VUNKC_ERR_SYNTAX, "[0x1500 " + path + ":4]"},
		{"pair before the first section", "name=a\n[main]\n", VUNKC_ERR_SYNTAX, "[0x1500 " + path + ":1]"},
		{"missing", nullptr, VUNKC_ERR_FILE_MISSING, "[0x0800 " + path + ":0]"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.what);
		std::filesystem::remove(path);
		if (row.text != nullptr)
			Write(row.text);
		journal.Clear();
		Profile profile;
		profile.name = profile.inherit = profile.profile_title_i18n = profile.profile_desc_i18n = profile.path =
			"old";
		profile.ui = true;
		profile.index = 5;
		EXPECT_EQ(TuneLoadProfileByPath(path.c_str(), profile), -1);
		EXPECT_EQ(journal.Lines(),
		          Lines{"utils.cpp Failed to get section [main] from path [" + path + "]. " + row.tail});
		EXPECT_EQ(VUNKCErrGet(), row.code);
		EXPECT_EQ(profile.name + profile.inherit + profile.profile_title_i18n + profile.profile_desc_i18n +
		                  profile.path,
		          "");
		EXPECT_FALSE(profile.ui);
		EXPECT_EQ(profile.index, -1);
		EXPECT_EQ(profile.main_section, Section{});
	}
}

TEST_F(ProfileFile, FailsWhereTheCoreLibraryFails)
{
	const std::string path = Write("[main]\nname=a\nindex=3\n");
	const struct {
		const char *function;
		std::string line;
		const char *name; // fields that had been read when the failure came keep their values
	} rows[] = {
		{"VUNKCSzHashAlloc", "utils.cpp Failed to VUNKCSzHashAlloc().[0xFA17 fault:1]", ""},
		{"VUNKCSzListAlloc", "utils.cpp VUNKCSzListAlloc failed", ""},
		{"VUNKCFileGetSection",
	         "utils.cpp Failed to get section [main] from path [" + path + "]. [0xFA17 fault:1]", ""},
		{"VUNKCSzHashEnumKey", "utils.cpp Failed to get hash enum key from hash.[0xFA17 fault:1]", "a"},
	};
	for (const auto &row : rows) {
		SCOPED_TRACE(row.function);
		journal.Clear();
		Profile profile;
		profile.name = profile.path = "old";
		const kit::Fault fault(row.function);
		EXPECT_EQ(TuneLoadProfileByPath(path.c_str(), profile), -1);
		EXPECT_TRUE(fault.Struck());
		EXPECT_EQ(journal.Lines(), Lines{row.line});
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		EXPECT_EQ(profile.name, row.name);
		EXPECT_EQ(profile.path, "");
	}
}

} // namespace
