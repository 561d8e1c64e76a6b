#include "lint.h"

#include "lint_catalogue.h"
#include "lint_values.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using Lines = std::vector<std::string>;

// A kernel with four parameters, one of which can only be read.
LintMachine TestMachine()
{
	static const std::map<std::string, std::string> values = {{"vm.swappiness", "60"},
	                                                          {"vm.dirty_ratio", "20"},
	                                                          {"vm.dirty_bytes", "0"},
	                                                          {"kernel.printk", "4 4 1 7"},
	                                                          {"kernel.version", "#1"}};
	LintMachine machine;
	machine.value = [](const std::string &name) -> std::optional<std::string> {
		const auto found = values.find(name);
		return found == values.end() ? std::nullopt : std::optional(found->second);
	};
	machine.exists = [](const std::string &name) { return values.contains(name); };
	machine.writable = [](const std::string &name) { return name != "kernel.version"; };
	machine.neighbours = [](const std::string &) { return Lines{"vm.swappiness", "vm.dirty_ratio"}; };
	machine.schedulers = {"none", "mq-deadline", "homemade"};
	machine.tunables = {"fifo_batch", "own_tunable"};
	return machine;
}

Lines Texts(const LintFindings &findings)
{
	Lines lines;
	for (const LintFinding &finding : findings)
		lines.push_back(std::to_string(finding.line) +
		                (finding.severity == LintFinding::Severity::kError ? " error: " : " warning: ") +
		                finding.text);
	return lines;
}

Lines LintText(const std::string &text)
{
	return Texts(Lint(ParseProfileText(text), TestMachine()));
}

// One line behind a sound [main].
Lines LintLine(const std::string &section, const std::string &line)
{
	return LintText("[main]\nname = x\n[" + section + "]\n" + line + "\n");
}

TEST(Lint, FindsNothingInASoundProfile)
{
	EXPECT_EQ(
		LintText("# comment\n[main]\nname = x\nindex = 3\nui = true\ninherit = y\nvm_memory_max = 8589934592\n"
	                 "profile_title_i18n = a\nprofile_desc_i18n = b\n[sysctl]\nvm.swappiness = 10\n"
	                 "kernel.printk = 1 2 3 4\n[volume]\nzevo_writeback_thread_max = auto\n[disk]\n"
	                 "ssd_scheduler = homemade\n[raid_cfq_1]\nslice_idle = 0\nown_tunable = -1\n"
	                 "[raid_cfq_5]\n[raid_cfq_default]\n"),
		Lines());
}

TEST(Lint, FindsWhatKeepsAFileFromBeingAProfile)
{
	EXPECT_EQ(LintText(""), Lines{"0 error: there is no section [main], without which it is no profile"});
	const std::string bad =
		" error: neither a section, a pair in a section nor a comment: the file cannot be read as a profile";
	EXPECT_EQ(LintText("name = x\n[main]\nname = x\nrubbish\n[]\n"), (Lines{"1" + bad, "4" + bad, "5" + bad}));
}

TEST(Lint, FindsWhatNothingReadsAndTheNearestThatIsRead)
{
	const std::string main = "[main]\nname = x\n";
	EXPECT_EQ(LintText(main + "[sysctll]\nanything = 1\n"),
	          Lines{"3 warning: no section [sysctll] is known, and it is ignored; did you mean \"sysctl\"?"});
	EXPECT_EQ(LintText(main + "[raid_cfq_6]\n").size(), 1U);
	EXPECT_EQ(LintText(main + "indx = 1\n"),
	          Lines{"3 warning: [main] knows no key \"indx\", and ignores it; did you mean \"index\"?"});
	EXPECT_EQ(LintLine("volume", "other = 1"), Lines{"4 warning: [volume] knows no key \"other\", and ignores it"});
	EXPECT_EQ(LintLine("disk", "sd_scheduler = none"), Lines{"4 warning: [disk] knows no key \"sd_scheduler\", and "
	                                                         "ignores it; did you mean \"ssd_scheduler\"?"});
	EXPECT_EQ(LintLine("sysctl", "vm.swapiness = 1"),
	          Lines{"4 warning: this kernel has no parameter \"vm.swapiness\", and it is passed over; "
	                "did you mean \"vm.swappiness\"?"});
	EXPECT_EQ(LintLine("raid_cfq_1", "slice_idel = 1"),
	          Lines{"4 warning: no known scheduler has a tunable \"slice_idel\": disks without it are passed over; "
	                "did you mean \"slice_idle\"?"});
	EXPECT_EQ(LintLine("disk", "ssd_scheduler = kyber"),
	          Lines{"4 warning: no disk of this machine offers the scheduler \"kyber\""});
	EXPECT_EQ(LintLine("disk", "ssd_scheduler = mq-dedline"),
	          Lines{"4 warning: there is no known scheduler \"mq-dedline\"; did you mean \"mq-deadline\"?"});
}

TEST(Lint, FindsWhatOccursTwice)
{
	EXPECT_EQ(LintText("[main]\nname = x\n[sysctl]\nvm.swappiness = 1\nvm.swappiness = 2\n"),
	          Lines{"5 warning: \"vm.swappiness\" occurs more than once in [sysctl]: the value of line 5 counts"});
	EXPECT_EQ(LintText("[main]\nname = x\n[sysctl]\n[sysctl]\n"),
	          Lines{"4 warning: [sysctl] occurs more than once: each time it is applied with the keys of all of "
	                "them"});
	EXPECT_EQ(LintLine("sysctl", "vm.dirty_ratio = 10\nvm.dirty_bytes = 8192"),
	          Lines{"5 warning: the kernel takes \"vm.dirty_bytes\" or \"vm.dirty_ratio\": whichever is applied "
	                "later "
	                "sets the other one to 0"});
}

TEST(Lint, FindsValuesThatWouldBeRefused)
{
	EXPECT_EQ(LintLine("sysctl", "kernel.version = 2"),
	          Lines{"4 error: the kernel refuses it: \"kernel.version\" can only be read"});
	EXPECT_EQ(LintLine("sysctl", "kernel.printk = 4 4 1 7 9"),
	          Lines{"4 warning: the kernel takes only 4 numbers for \"kernel.printk\""});
	EXPECT_EQ(LintLine("sysctl", "vm.swappiness = 201"),
	          Lines{"4 error: the kernel refuses \"201\" for \"vm.swappiness\": the most is 200"});
	for (const char *value : {"0", "-1", "", "Auto", "2 2"})
		EXPECT_EQ(LintLine("volume", std::string("zevo_writeback_thread_max = ") + value),
		          Lines{"4 error: \"zevo_writeback_thread_max\" is to be \"auto\" or a decimal number from 1, "
		                "not \"" +
		                std::string(value) + "\""});
	EXPECT_EQ(LintLine("raid_cfq_5", "fifo_batch ="),
	          Lines{"4 error: \"fifo_batch\" is empty, and ends the application on a machine with such an array"});
	EXPECT_EQ(LintLine("raid_cfq_5", "fifo_batch = many"),
	          Lines{"4 error: the kernel refuses \"many\" for \"fifo_batch\": it is no number"});
	EXPECT_EQ(LintLine("raid_cfq_1", "slice_idle = -1"),
	          Lines{"4 error: the kernel refuses \"-1\" for \"slice_idle\": the least is 0"});
	EXPECT_EQ(LintLine("raid_cfq_default", "low_latency = 2"),
	          Lines{"4 warning: the kernel takes another value than \"2\" for \"low_latency\": the most is 1"});
	const std::string main = "[main]\nname = x\n";
	EXPECT_EQ(LintText(main + "index = first\n").size(), 1U);
	EXPECT_EQ(LintText(main + "ui = True\n").size(), 1U);
	EXPECT_EQ(LintText(main + "vm_memory_max = 8G\n").size(), 1U);
}

TEST(Lint, TellsItsFindingsInTheOrderOfTheLines)
{
	const Lines lines = LintText("stray\n[new]\n[sysctl]\nvm.swappiness = 1\nrubbish\nvm.swappiness = 999\n"
	                             "[raid_cfq_1]\nnew =\n");
	EXPECT_EQ(lines,
	          (Lines{"0 error: there is no section [main], without which it is no profile",
	                 "1 error: neither a section, a pair in a section nor a comment: the file cannot be read as a "
	                 "profile",
	                 "2 warning: no section [new] is known, and it is ignored",
	                 "5 error: neither a section, a pair in a section nor a comment: the file cannot be read as a "
	                 "profile",
	                 "6 warning: \"vm.swappiness\" occurs more than once in [sysctl]: the value of line 6 counts",
	                 "6 error: the kernel refuses \"999\" for \"vm.swappiness\": the most is 200",
	                 "8 warning: no known scheduler has a tunable \"new\": disks without it are passed over",
	                 "8 error: \"new\" is empty, and ends the application on a machine with such an array"}));
}

TEST(Lint, IntegersOfMainAndVolumesAreDecimalAsTheLibraryReadsThem)
{
	for (const char *value : {"0x10", "2147483648", "1.5", "two", ""}) {
		EXPECT_EQ(LintText("[main]\nname = x\nindex = " + std::string(value) + "\n"),
		          Lines{"3 warning: \"index\" is to be a decimal number; \"" + std::string(value) +
		                "\" sorts as what it begins with, or as 0"});
		EXPECT_EQ(LintLine("volume", "zevo_writeback_thread_max = " + std::string(value)).size(), 1U) << value;
	}
	EXPECT_EQ(LintText("[main]\nname = x\nindex = -007\n"), Lines());
	EXPECT_EQ(LintLine("volume", "zevo_writeback_thread_max = 010"), Lines());
	EXPECT_EQ(LintLine("volume", "zevo_writeback_thread_max = 2147483647"), Lines());
}

TEST(Lint, WhatIsMeantForWordsTakesThemExactly)
{
	EXPECT_EQ(LintText("[main]\nname = x\nui = TRUE\n"),
	          Lines{"3 warning: \"ui\" is to be true or false; \"TRUE\" counts as false"});
	EXPECT_EQ(LintText("[Main]\nname = x\n"),
	          (Lines{"0 error: there is no section [main], without which it is no profile",
	                 "1 warning: no section [Main] is known, and it is ignored; did you mean \"main\"?"}));
	EXPECT_EQ(LintText("[main]\nname = x\nvm_memory_max = 8589934592 bytes\n"),
	          Lines{"3 error: \"vm_memory_max\" is to be a number of bytes; \"8589934592 bytes\" counts as what it "
	                "begins with, or as 0"});
	EXPECT_EQ(LintLine("disk", "ssd_scheduler ="), Lines{"4 warning: there is no known scheduler \"\""});
}

TEST(Lint, OfARatioAndItsBytesOfTheOtherGroupNothingIsSaid)
{
	EXPECT_EQ(LintLine("sysctl", "vm.dirty_background_ratio = 5\nvm.dirty_bytes = 8192").size(),
	          1U); // unknown here
	EXPECT_EQ(LintLine("sysctl", "vm.dirty_background_bytes = 8192\nvm.dirty_background_ratio = 5")[0],
	          "4 warning: the kernel takes \"vm.dirty_background_bytes\" or \"vm.dirty_background_ratio\": "
	          "whichever is applied later sets the other one to 0");
}

TEST(LintValues, KnowTheRangesOfParametersByAnyName)
{
	struct Row {
		const char *name;
		const char *value;
		const char *why;
	};
	for (const Row &row :
	     {Row{"vm.swappiness", "0", ""}, Row{"vm.swappiness", "200", ""},
	      Row{"vm.swappiness", "-1", "the least is 0"}, Row{"vm/swappiness", "201", "the most is 200"},
	      Row{"vm.dirty_bytes", "8191", "the least is 8192"}, Row{"vm.dirty_bytes", "8192", ""},
	      Row{"vm.dirty_background_bytes", "0", "the least is 1"}, Row{"vm.dirty_ratio", "101", "the most is 100"},
	      Row{"vm.dirty_ratio", "0x10", ""}, Row{"vm.dirty_ratio", "20%", "it is no number"},
	      Row{"vm.dirty_ratio", "", "it is empty"},
	      Row{"vm.dirty_ratio", "99999999999999999999", "the most is 100"}})
		EXPECT_EQ(WhySysctlRefused(row.name, row.value, "5"), row.why) << row.name << ' ' << row.value;
}

TEST(LintValues, AreJudgedByThePresentOnesWhereNoRangeIsKnown)
{
	EXPECT_EQ(WhySysctlRefused("kernel.printk", "4 4 1 7", "1\t2\t3\t4"), "");
	EXPECT_EQ(WhySysctlRefused("kernel.printk", "4", "1 2 3 4"), "");
	EXPECT_EQ(WhySysctlRefused("kernel.printk", "4 x", "1 2 3 4"), "these are not all numbers");
	EXPECT_EQ(WhySysctlRefused("net.core.default_qdisc", "anything", "fq"), "");
	EXPECT_EQ(WhySysctlRefused("kernel.unread", "anything", std::nullopt), "");
}

class LintAmongTest : public testing::Test {
protected:
	Profile Add(const std::string &path, const std::string &text)
	{
		catalogue.push_back(ProfileOf(path, ParseProfileText(text)));
		return catalogue.back();
	}

	Lines LintOf(const std::string &text, bool isGlobal = false)
	{
		const ProfileText parsed = ParseProfileText(text);
		const Profile profile = ProfileOf("/x", parsed);
		Catalogue all = catalogue;
		all.push_back(profile);
		return Texts(LintAmong(all, profile, parsed, isGlobal));
	}

	Catalogue catalogue;
};

TEST_F(LintAmongTest, FindsAMissingNameButOfGlobalProfiles)
{
	EXPECT_EQ(LintOf("[main]\n"), Lines{"1 error: [main] has no \"name\", by which a profile is selected"});
	EXPECT_EQ(LintOf("[main]\nname =\n"), Lines{"2 error: \"name\" is empty, by which a profile is selected"});
	EXPECT_EQ(LintOf("[main]\n", true), Lines());
}

TEST_F(LintAmongTest, FindsNamesAndIndexesThatAnotherProfileHas)
{
	Add("/a", "[main]\nname = a\nindex = 1\n");
	Add("/none", "[main]\nname = none\n");
	EXPECT_EQ(LintOf("[main]\nname = x\nindex = 2\n"), Lines());
	EXPECT_EQ(LintOf("[main]\nname = x\n"), Lines()); // that both have no index is nothing
	EXPECT_EQ(
		LintOf("[main]\nname = a\nindex = 1\n"),
		Lines{"2 error: the name \"a\" is that of /a as well: only the one that is listed first is ever used"});
	EXPECT_EQ(
		LintOf("[main]\nname = x\nindex = 1\n"),
		Lines{"3 warning: the index 1 is that of /a as well: which of the two is listed first is not settled"});
}

TEST_F(LintAmongTest, FindsParentsThatAreMissingAndCircles)
{
	Add("/a", "[main]\nname = a\ninherit = b\n");
	Add("/b", "[main]\nname = b\ninherit = x\n");
	EXPECT_EQ(LintOf("[main]\nname = x\ninherit = gone\n"),
	          Lines{"3 error: /x inherits from \"gone\", and there is no profile of that name; mend or remove its "
	                "\"inherit\""});
	EXPECT_EQ(LintOf("[main]\nname = x\ninherit = a\n"), Lines{"3 error: its inheritance never ends: \"x\" (/x) -> "
	                                                           "\"a\" (/a) -> \"b\" (/b) -> \"x\" (/x); remove "
	                                                           "one \"inherit\" of the circle"});
}

TEST_F(LintAmongTest, FindsGlobalProfilesThatInherit)
{
	Add("/a", "[main]\nname = a\n");
	EXPECT_EQ(LintOf("[main]\nname = a\n", true), Lines()); // no names are looked up among them
	EXPECT_EQ(LintOf("[main]\nname = x\ninherit = a\n", true),
	          Lines{"3 error: a global profile must not inherit: before every profile that is inherited all global "
	                "ones "
	                "are applied, without end"});
}

} // namespace
