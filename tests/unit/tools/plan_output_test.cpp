#include "plan_output.h"

#include <gtest/gtest.h>

#include <json/writer.h>

namespace {

using Keys = std::vector<PlannedKey>;

PlannedWrite Write(const std::string &target, const std::string &value, const std::string &now)
{
	PlannedWrite write;
	write.target = target;
	write.path = SysctlPath(target);
	write.value = value;
	write.now = {now, ""};
	return write;
}

PlannedSection Section(const std::string &name, Keys keys)
{
	return {ProfileRole::kSelected, "x", "/x", name, 3, std::move(keys), {}};
}

Plan PlanOf(std::vector<PlannedSection> sections)
{
	Plan plan;
	plan.profile = "x";
	plan.sections = std::move(sections);
	return plan;
}

// Without the header and the profile's line.
std::string Rows(const std::vector<PlannedSection> &sections)
{
	const std::string text = PlanText(PlanOf(sections), {});
	return text.substr(text.find("/x\n") + 3);
}

std::string Json(const Json::Value &value)
{
	Json::StreamWriterBuilder writer;
	writer["indentation"] = "";
	return Json::writeString(writer, value);
}

TEST(PlanText, OfNothingIsAHeaderAndACount)
{
	EXPECT_EQ(PlanText(PlanOf({}), {}), "LINE    TARGET  NOW  TO COME  NOTE\n0 values would change\n");
	EXPECT_EQ(Rows({Section("main", {})}), "0 values would change\n");
	EXPECT_EQ(Rows({Section("sysctl", {})}), " [sysctl]\n       nothing on this machine\n0 values would change\n");
}

TEST(PlanText, AProfilesFileIsNamedWhereItBeginsAndWhereItGoesOn)
{
	PlannedSection global = Section("sysctl", {});
	global.role = ProfileRole::kGlobal;
	global.profile = "a\n";
	global.path = "/g";
	PlannedSection inherited = Section("disk", {});
	inherited.role = ProfileRole::kInherited;
	inherited.path = "/i";
	EXPECT_EQ(PlanText(PlanOf({global, Section("main", {}), inherited, Section("disk", {}), Section("volume", {})}),
	                   {}),
	          "LINE    TARGET  NOW  TO COME  NOTE\n"
	          "global profile \"a\\x0A\", /g\n [sysctl]\n       nothing on this machine\n"
	          "profile \"x\", /x\n"
	          "inherited profile \"x\", /i\n [disk]\n       nothing on this machine\n"
	          "profile \"x\", /x\n [disk]\n       nothing on this machine\n"
	          " [volume]\n       nothing on this machine\n"
	          "0 values would change\n");
}

TEST(PlanText, AValueSaysWhatBecomesOfIt)
{
	PlannedWrite noted = Write("vm.b", "2", "0x2");
	noted.note = "as it is";
	PlannedWrite later = Write("vm.c", "3", "1");
	later.overwrittenLater = true;
	later.note = "first";
	PlannedWrite unknown = Write("vm.d", "4", "");
	unknown.known = false;
	unknown.now = {std::nullopt, "why"};
	PlannedWrite unread = Write("vm.e", "5", "");
	unread.now = {std::nullopt, "secret"};
	EXPECT_EQ(Rows({Section("sysctl", {{"k", "v", 4, {Write("vm.a", "1", "0")}, {}},
	                                   {"k", "v", 0, {noted, later}, {}},
	                                   {"k", "v", 12345, {unknown, unread}, {}}})}),
	          " [sysctl]\n"
	          "4        vm.a    0         1\n"
	          "         vm.b    0x2       as now   as it is\n"
	          "         vm.c    1         3        first; overwritten below\n"
	          "12345    vm.d    (why)     4        this kernel does not have it\n"
	          "12345    vm.e    (secret)  5\n"
	          "2 values would change, 1 would stay as it is, 1 would be overwritten on the way, "
	          "1 is not known to this kernel\n");
}

TEST(PlanText, OfAPairTheOneThatIsWrittenClearsTheOther)
{
	EXPECT_EQ(Rows({Section("sysctl", {{"k", "v", 4, {Write("vm.dirty_bytes", "8192", "0")}, {}},
	                                   {"k", "v", 5, {Write("vm.dirty_background_ratio", "5", "5")}, {}}})}),
	          " [sysctl]\n"
	          "4       vm.dirty_bytes             0    8192     makes vm.dirty_ratio 0\n"
	          "5       vm.dirty_background_ratio  5    as now\n"
	          "1 value would change, 1 would stay as it is\n");
}

TEST(PlanText, CountsOneAndMany)
{
	const auto rows = [](int count, const PlannedWrite &write) {
		Keys keys(static_cast<size_t>(count), {"k", "v", 4, {write}, {}});
		const std::string text = Rows({Section("sysctl", keys)});
		return text.substr(text.rfind('\n', text.size() - 2) + 1);
	};
	PlannedWrite write = Write("vm.a", "1", "0");
	EXPECT_EQ(rows(1, write), "1 value would change\n");
	EXPECT_EQ(rows(2, write), "2 values would change\n");
	write.overwrittenLater = true;
	EXPECT_EQ(rows(2, write), "0 values would change, 2 would be overwritten on the way\n");
	write.known = false;
	EXPECT_EQ(rows(2, write), "0 values would change, 2 are not known to this kernel\n");
	EXPECT_EQ(rows(2, Write("vm.a", "1", "1")), "0 values would change, 2 would stay as they are\n");
}

TEST(PlanText, TellsOnceWhatSeveralKeysLeaveAlone)
{
	const PassedOver sda = {"/dev/sda", "it is no SSD"};
	const PassedOver sdb = {"/dev/sdb", "it is no SSD"};
	const PassedOver otherReason = {"/dev/sda", "it is away"};
	EXPECT_EQ(Rows({Section("disk", {{"a", "1", 4, {}, {sda, sdb, sda}},
	                                 {"b", "1", 5, {}, {sda, otherReason}},
	                                 {"c", "1", 6, {}, {sda, {"c", "no such key"}}}})}),
	          " [disk]\n"
	          "       not /dev/sda: it is no SSD\n"
	          "       not a of /dev/sdb: it is no SSD\n"
	          "       not b of /dev/sda: it is away\n"
	          "       not c: no such key\n"
	          "0 values would change\n");
	EXPECT_EQ(Rows({Section("disk", {{"a", "1", 4, {}, {sda}}, {"b", "1", 5, {}, {sda}}, {"c", "1", 6, {}, {}}})}),
	          " [disk]\n       not a, b of /dev/sda: it is no SSD\n0 values would change\n");
}

TEST(PlanText, ASectionThatIsLeftAloneIsNoKeys)
{
	PlannedSection unknown = Section("other", {});
	unknown.passedOver = {{"other", "no such section"}};
	EXPECT_EQ(Rows({unknown}), " [other]\n       not other: no such section\n0 values would change\n");
	PlannedSection main = Section("main", {});
	main.passedOver = {{"main", "why not"}};
	EXPECT_EQ(Rows({main}), " [main]\n       not main: why not\n0 values would change\n");
}

TEST(PlanText, HasColoursOnlyWhereTheyAreWanted)
{
	PlannedWrite unknown = Write("vm.b", "2", "1");
	unknown.known = false;
	const Plan plan = PlanOf({Section("sysctl", {{"k", "v", 4, {Write("vm.a", "1", "0"), unknown}, {}}})});
	EXPECT_EQ(PlanText(plan, {true, 0}),
	          "LINE    TARGET  NOW  TO COME  NOTE\nprofile \"x\", /x\n [sysctl]\n"
	          "4       vm.a    0    \x1B[32m1\x1B[0m\n"
	          "4       vm.b    1    \x1B[33m2\x1B[0m        \x1B[33mthis kernel does not have it\x1B[0m\n"
	          "1 value would change, 1 is not known to this kernel\n");
}

TEST(PlanText, BreaksNotesAtTheTerminalsEnd)
{
	PlannedWrite write = Write("vm.a", "1", "0");
	write.note = "one two three four five six seven";
	const std::string text = PlanText(PlanOf({Section("sysctl", {{"k", "v", 4, {write}, {}}})}), {false, 51});
	EXPECT_EQ(text, "LINE    TARGET  NOW  TO COME  NOTE\nprofile \"x\", /x\n [sysctl]\n"
	                "4       vm.a    0    1        one two three four\n"
	                "                              five six seven\n"
	                "1 value would change\n");
}

TEST(PlanJson, HasEverythingAndNullForWhatIsUnknown)
{
	PlannedWrite write = Write("vm.a", "1", "0x1");
	write.note = "n";
	PlannedWrite unread = Write("vm.b", "2", "");
	unread.now = {std::nullopt, "secret"};
	unread.overwrittenLater = true;
	PlannedSection section = Section("sysctl", {{"k", "v", 4, {write, unread}, {{"w", "y"}}}});
	section.role = ProfileRole::kInherited;
	section.passedOver = {{"s", "t"}};
	Plan plan = PlanOf({section});
	plan.failure = "broken";
	EXPECT_EQ(
		Json(PlanJson(plan)),
		R"({"failure":"broken","profile":"x","sections":[{"keys":[{"key":"k","line":4,"passed_over":[{"what":"w",)"
		R"("why":"y"}],"value":"v","writes":[{"changes":false,"known":true,"note":"n","now":"0x1",)"
		R"("now_unknown":null,"overwritten_later":false,"path":"/proc/sys/vm/a","target":"vm.a","value":"1"},)"
		R"({"changes":true,"known":true,"note":null,"now":null,"now_unknown":"secret","overwritten_later":true,)"
		R"("path":"/proc/sys/vm/b","target":"vm.b","value":"2"}]}],"line":3,"passed_over":[{"what":"s",)"
		R"("why":"t"}],"path":"/x","profile":"x","role":"inherited","section":"sysctl"}]})");
	EXPECT_EQ(Json(PlanJson(PlanOf({}))), R"({"failure":null,"profile":"x","sections":[]})");
}

TEST(ValueText, IsTheValueOrItsReason)
{
	EXPECT_EQ(ValueText({"1", ""}), "1");
	EXPECT_EQ(ValueText({"", ""}), "");
	EXPECT_EQ(ValueText({std::nullopt, "secret"}), "(secret)");
}

} // namespace
