#include <zevotuned/profile.h>

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

std::string Main(const std::string &name)
{
	return "[main]\nname=" + name + "\n";
}

std::string Main(const std::string &name, const std::string &index)
{
	return Main(name) + "index=" + index + "\n";
}

Lines ProfileNames(const std::vector<Profile> &profiles)
{
	Lines names;
	for (const Profile &profile : profiles)
		names.push_back(profile.name);
	return names;
}

// A list of the caller's.
class StringList {
public:
	~StringList() { VUNKCSzListFree(list); }
	Lines Strings() const
	{
		Lines strings;
		for (int i = 0; i < list->nItem; ++i)
			strings.push_back(VUNKCSzListGet(list, i));
		return strings;
	}

	VUNKSZLIST *list = VUNKCSzListAlloc(16);
};

class Catalogue : public kit::LabTest {
protected:
	Catalogue() { VUNKCErrSetEx(0, "", 0); }

	Lines Listed()
	{
		std::vector<Profile> profiles;
		EXPECT_EQ(TuneProfileListWithVector(profiles), 0);
		return ProfileNames(profiles);
	}

	// The path that is found for a name, or "-1".
	static std::string Found(const char *name)
	{
		char buffer[1024];
		return TuneGetProfileConfig(name, buffer, sizeof(buffer)) == 0 ? buffer : "-1";
	}

	kit::Journal journal;
};

// The lines of a catalogue that holds a file without a section "main", up to the one of the listing itself.
Lines BrokenFile(const std::string &dir, const std::string &file)
{
	const std::string path = dir + "/" + file;
	const std::string tail = "[0x1600 " + path + ":0]";
	return {"utils.cpp Failed to get section [main] from path [" + path + "]. " + tail,
	        "utils.cpp Failed to TuneLoadProfileByPath [" + path + "]." + tail,
	        "utils.cpp Failed to TuneLoadOneProfile [" + path + "]" + tail,
	        "utils.cpp Failed to TuneProfileListByDir [" + dir + "]" + tail};
}

TEST_F(Catalogue, IsEmptyWithoutItsFolders)
{
	VUNKCErrSetEx(0x77, "elsewhere", 3);
	StringList names;
	EXPECT_EQ(Listed(), Lines{});
	EXPECT_EQ(TuneProfileList(&names.list), 0);
	EXPECT_EQ(names.Strings(), Lines{});
	EXPECT_EQ(Found("a"), "-1");
	EXPECT_EQ(journal.Lines(), Lines{});
	EXPECT_EQ(VUNKCErrGet(), 0x77);
}

TEST_F(Catalogue, IsEmptyWhereItsFoldersAreEmptyOrFiles)
{
	std::filesystem::create_directories(kit::kShippedDir);
	kit::WriteFile(kit::kLocalDir, "a file");
	EXPECT_EQ(Listed(), Lines{});
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Catalogue, ListsByAscendingIndexWithProfilesWithoutOneFirst)
{
	kit::Install(kit::kShippedDir, "a", Main("three", "3"));
	kit::Install(kit::kShippedDir, "b", Main("none"));
	kit::Install(kit::kLocalDir, "c", Main("zero", "0"));
	kit::Install(kit::kLocalDir, "d", Main("ten", "10"));
	EXPECT_EQ(Listed(), (Lines{"none", "zero", "three", "ten"}));
}

TEST_F(Catalogue, ComparesIndexesAsSignedNumbers)
{
	kit::Install(kit::kShippedDir, "a", Main("largest", "2147483647"));
	kit::Install(kit::kShippedDir, "b", Main("smallest", "-2147483648"));
	kit::Install(kit::kShippedDir, "c", Main("minus two", "-2"));
	kit::Install(kit::kShippedDir, "d", Main("none"));
	EXPECT_EQ(Listed(), (Lines{"smallest", "minus two", "none", "largest"}));
}

TEST_F(Catalogue, KeepsTheOrderOfTheFilesAmongUpTo16OfOneIndex)
{
	Lines expected;
	for (const std::string &dir : {kit::kShippedDir, kit::kLocalDir}) {
		for (char file = 'a'; file < 'a' + 8; ++file) {
			const std::string name = dir + file;
			kit::Install(dir, std::string(1, file), Main(name, "5"));
			expected.push_back(name);
		}
	}
	EXPECT_EQ(Listed(), expected);
}

TEST_F(Catalogue, TellsWhereAProfileCameFrom)
{
	const std::string path = kit::Install(kit::kLocalDir, "some name.txt", Main("a") + "ui=true\nother=x\n");
	std::vector<Profile> profiles;
	ASSERT_EQ(TuneProfileListWithVector(profiles), 0);
	ASSERT_EQ(profiles.size(), 1u);
	EXPECT_EQ(profiles[0].path, path);
	EXPECT_TRUE(profiles[0].ui);
	EXPECT_EQ(profiles[0].main_section.at("other"), "x");
}

TEST_F(Catalogue, ListsProfilesOfTheSameNameAllAndFindsTheOneOfTheLowerIndex)
{
	kit::Install(kit::kShippedDir, "a", Main("alpha", "5"));
	const std::string local = kit::Install(kit::kLocalDir, "a", Main("alpha", "2"));
	kit::Install(kit::kLocalDir, "b", Main("beta", "3"));
	StringList names;
	EXPECT_EQ(Listed(), (Lines{"alpha", "beta", "alpha"}));
	EXPECT_EQ(TuneProfileList(&names.list), 0);
	EXPECT_EQ(names.Strings(), (Lines{"alpha", "beta", "alpha"}));
	EXPECT_EQ(Found("alpha"), local);
}

TEST_F(Catalogue, FindsTheShippedOneOfTwoWithTheSameNameAndIndex)
{
	kit::Install(kit::kLocalDir, "a", Main("alpha", "2"));
	const std::string shipped = kit::Install(kit::kShippedDir, "z", Main("alpha", "2"));
	EXPECT_EQ(Found("alpha"), shipped);
}

TEST_F(Catalogue, SeesAFileAsSoonAsItIsThere)
{
	EXPECT_EQ(Found("a"), "-1");
	const std::string path = kit::Install(kit::kShippedDir, "a", Main("a"));
	EXPECT_EQ(Found("a"), path);
	std::filesystem::remove(path);
	EXPECT_EQ(Found("a"), "-1");
}

TEST_F(Catalogue, AppendsToAVectorAndSortsWhatItHeldAsWell)
{
	kit::Install(kit::kShippedDir, "a", Main("two", "2"));
	kit::Install(kit::kShippedDir, "b", Main("four", "4"));
	std::vector<Profile> profiles(2);
	profiles[0].name = "five";
	profiles[0].index = 5;
	profiles[1].name = "three";
	profiles[1].index = 3;
	EXPECT_EQ(TuneProfileListWithVector(profiles), 0);
	EXPECT_EQ(ProfileNames(profiles), (Lines{"two", "three", "four", "five"}));
}

TEST_F(Catalogue, FailsAsAWholeForOneFileThatIsNoProfile)
{
	kit::Install(kit::kShippedDir, "b", Main("shipped two", "2"));
	kit::Install(kit::kShippedDir, "c", Main("shipped one", "1"));
	kit::Install(kit::kLocalDir, "notes", "[remarks]\n");
	Lines lines = BrokenFile(kit::kLocalDir, "notes");
	const std::string tail = "[0x1600 " + kit::kLocalDir + "/notes:0]";

	std::vector<Profile> profiles;
	EXPECT_EQ(TuneProfileListWithVector(profiles), -1);
	EXPECT_EQ(journal.Lines(), lines);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SECTION_MISSING);
	EXPECT_EQ(ProfileNames(profiles), (Lines{"shipped two", "shipped one"})) << "kept as they came";

	lines.push_back("utils.cpp Failed to TuneProfileListWithVector" + tail);
	journal.Clear();
	char buffer[1024] = "untouched";
	EXPECT_EQ(TuneGetProfileConfig("shipped one", buffer, sizeof(buffer)), -1);
	EXPECT_STREQ(buffer, "untouched");
	EXPECT_EQ(journal.Lines(), lines);

	journal.Clear();
	StringList names;
	VUNKCSzListPush(&names.list, "held before");
	EXPECT_EQ(TuneProfileList(&names.list), -1);
	EXPECT_EQ(names.Strings(), Lines{"held before"});
	EXPECT_EQ(journal.Lines(), lines);
}

TEST_F(Catalogue, DoesNotReadTheLocalFolderWhenTheShippedOneFails)
{
	kit::Install(kit::kShippedDir, "broken", "");
	kit::Install(kit::kLocalDir, "broken as well", "");
	std::vector<Profile> profiles(1);
	EXPECT_EQ(TuneProfileListWithVector(profiles), -1);
	EXPECT_EQ(journal.Lines(), BrokenFile(kit::kShippedDir, "broken"));
	EXPECT_EQ(profiles.size(), 1u);
}

TEST_F(Catalogue, FailsWhereAFolderCannotBeRead)
{
	kit::Install(kit::kShippedDir, "a", Main("a"));
	kit::Install(kit::kLocalDir, "b", Main("b"));
	const std::string code = "[0xFA17 fault:1]";
	for (const auto &[nth, dir] : {std::pair(1, kit::kShippedDir), std::pair(2, kit::kLocalDir)}) {
		journal.Clear();
		const kit::Fault fault("VUNKCFileEnumDir", nth);
		EXPECT_EQ(Found("a"), "-1");
		EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to VUNKCFileEnumDir [" + dir + "]" + code,
		                                  "utils.cpp Failed to TuneProfileListByDir [" + dir + "]" + code,
		                                  "utils.cpp Failed to TuneProfileListWithVector" + code}));
		EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
	}
	journal.Clear();
	const kit::Fault fault("VUNKCSzListAlloc");
	EXPECT_EQ(Found("a"), "-1");
	EXPECT_EQ(journal.Lines(), (Lines{"utils.cpp Failed to VUNKCSzListAlloc" + code,
	                                  "utils.cpp Failed to TuneProfileListByDir [" + kit::kShippedDir + "]" + code,
	                                  "utils.cpp Failed to TuneProfileListWithVector" + code}));
}

TEST_F(Catalogue, FindsAProfileByItsWholeNameInItsOwnCase)
{
	const std::string path = kit::Install(kit::kShippedDir, "file name", Main("Fast"));
	VUNKCErrSetEx(0x77, "elsewhere", 3);
	EXPECT_EQ(Found("Fast"), path);
	for (const char *name : {"fast", "Fas", "Faster", "file name", ""})
		EXPECT_EQ(Found(name), "-1") << name;
	EXPECT_EQ(journal.Lines(), Lines{}) << "the callers log it";
	EXPECT_EQ(VUNKCErrGet(), 0x77);
}

TEST_F(Catalogue, FindsAProfileWithoutANameByTheEmptyOne)
{
	const std::string path = kit::Install(kit::kShippedDir, "nameless", "[main]\n");
	EXPECT_EQ(Found(""), path);
}

TEST_F(Catalogue, CutsAPathToTheCallersBuffer)
{
	const std::string path = kit::Install(kit::kShippedDir, "a", Main("a"));
	for (const size_t size : {size_t{1}, size_t{10}, path.size(), path.size() + 1}) {
		std::string buffer(path.size() + 8, '#');
		EXPECT_EQ(TuneGetProfileConfig("a", buffer.data(), size), 0);
		EXPECT_EQ(buffer.c_str(), path.substr(0, size - 1));
		EXPECT_EQ(buffer.find_first_not_of('#', size), std::string::npos) << "written past the buffer's end";
	}
}

TEST_F(Catalogue, LeavesTheBufferAloneForAProfileThatIsNotThere)
{
	kit::Install(kit::kShippedDir, "a", Main("a"));
	char buffer[1024] = "untouched";
	EXPECT_EQ(TuneGetProfileConfig("b", buffer, sizeof(buffer)), -1);
	EXPECT_STREQ(buffer, "untouched");
}

TEST_F(Catalogue, RefusesWrongArgumentsInTheirOrder)
{
	char buffer[16] = "untouched";
	VUNKSZLIST *none = nullptr;
	const struct {
		int result;
		const char *condition;
	} rows[] = {
		{(TuneGetProfileConfig(nullptr, nullptr, 0)), "__null != szProfile"},
		{(TuneGetProfileConfig("a", nullptr, 0)), "__null != szConfig"},
		{(TuneGetProfileConfig("a", buffer, 0)), "0 < cbConfig"},
		{(TuneProfileList(nullptr)), "__null != ppslList"},
		{(TuneProfileList(&none)), "NULL != *ppslList"},
	};
	Lines expected;
	for (const auto &row : rows) {
		EXPECT_EQ(row.result, -1) << row.condition;
		expected.push_back("utils.cpp Invaild Argument (" + std::string(row.condition) + ")=[0]\n");
	}
	EXPECT_EQ(journal.Lines(), expected);
	EXPECT_EQ(VUNKCErrGet(), 0xD00);
	EXPECT_STREQ(buffer, "untouched");
	EXPECT_EQ(none, nullptr);
}

TEST_F(Catalogue, AppendsNamesToAListThatHoldsSome)
{
	kit::Install(kit::kShippedDir, "a", Main("second", "2"));
	kit::Install(kit::kShippedDir, "b", Main("first", "1"));
	kit::Install(kit::kLocalDir, "c", "[main]\nindex=0\n");
	kit::Install(kit::kLocalDir, "d", Main("first", "4"));
	StringList names;
	VUNKCSzListPush(&names.list, "held");
	VUNKCSzListPush(&names.list, "before");
	EXPECT_EQ(TuneProfileList(&names.list), 0);
	EXPECT_EQ(names.Strings(), (Lines{"held", "before", "", "first", "second", "first"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

TEST_F(Catalogue, ListsMoreNamesThanFitIntoTheListAtFirst)
{
	Lines expected;
	for (int i = 0; i < 100; ++i) {
		const std::string name = std::string(50, 'n') + std::to_string(i);
		kit::Install(kit::kShippedDir, std::to_string(i), Main(name, std::to_string(i)));
		expected.push_back(name);
	}
	StringList names;
	EXPECT_EQ(TuneProfileList(&names.list), 0);
	EXPECT_EQ(names.Strings(), expected);
}

TEST_F(Catalogue, PassesOverANameThatCannotBeAppended)
{
	for (const char *name : {"a", "b", "c"})
		kit::Install(kit::kShippedDir, name, Main(name));
	StringList names;
	const kit::Fault fault("VUNKCSzListPush", 2);
	EXPECT_EQ(TuneProfileList(&names.list), 0);
	EXPECT_TRUE(fault.Struck());
	EXPECT_EQ(names.Strings(), (Lines{"a", "c"}));
	EXPECT_EQ(journal.Lines(), Lines{});
}

} // namespace
