#include "kit/files.h"

#include <vunkcore/error.h>
#include <vunkcore/section_file.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Strings = std::vector<std::string>;

class List {
public:
	List() = default;
	~List() { VUNKCSzListFree(list); }
	List(const List &) = delete;
	List &operator=(const List &) = delete;

	VUNKSZLIST **Address() { return &list; }
	Strings Items() const
	{
		Strings items;
		for (int i = 0; i < list->nItem; ++i)
			items.emplace_back(VUNKCSzListGet(list, i));
		return items;
	}

private:
	VUNKSZLIST *list = VUNKCSzListAlloc(1);
};

class Hash {
public:
	explicit Hash(const Pairs &pairs = {})
	{
		for (const auto &[key, value] : pairs)
			VUNKCSzHashSetValue(&hash, key.c_str(), value.c_str());
	}
	~Hash() { VUNKCSzHashFree(hash); }
	Hash(const Hash &) = delete;
	Hash &operator=(const Hash &) = delete;

	VUNKSZHASH *Get() const { return hash; }
	VUNKSZHASH **Address() { return &hash; }

	Pairs InOrder() const
	{
		List keys;
		VUNKCSzHashEnumKey(hash, keys.Address());
		Pairs pairs;
		for (const std::string &key : keys.Items())
			pairs.emplace_back(key, VUNKCSzHashGetValue(hash, key.c_str()));
		return pairs;
	}

private:
	VUNKSZHASH *hash = VUNKCSzHashAlloc(1);
};

class SectionFile : public testing::Test {
protected:
	SectionFile() { VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0); }

	void Write(std::string_view text) const { kit::WriteFile(path, text); }
	std::string Text() const { return kit::ReadFile(path); }

	int Get(const std::string &section, Hash &hash) const
	{
		return VUNKCFileGetSection(path.c_str(), section.c_str(), hash.Address());
	}
	int Add(const std::string &section, const Pairs &pairs) const
	{
		return VUNKCFileAddSection(path.c_str(), section.c_str(), Hash(pairs).Get());
	}
	int Modify(const std::string &section, const Pairs &pairs) const
	{
		return VUNKCIFileModifySection(path.c_str(), section.c_str(), nullptr, Hash(pairs).Get(), 1, 0);
	}
	int Remove(const std::string &section) const { return VUNKCFileRemoveSection(path.c_str(), section.c_str()); }

	Pairs Section(const std::string &section) const
	{
		Hash hash;
		EXPECT_GE(Get(section, hash), 0);
		return hash.InOrder();
	}

	Strings Sections() const
	{
		List list;
		EXPECT_GE(VUNKCFileEnumSection(path.c_str(), list.Address()), 0);
		return list.Items();
	}

	void ExpectError(int code, const std::string &file, int line) const
	{
		EXPECT_EQ(VUNKCErrGet(), code);
		EXPECT_EQ(VUNKCErrorGetFile(), file);
		EXPECT_EQ(VUNKCErrorGetLine(), line);
		VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0);
	}

	void ExpectCode(int code) const
	{
		EXPECT_EQ(VUNKCErrGet(), code);
		VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0);
	}

	/// Calls every function on a file that none of them can read.
	void ExpectUnreadable(const std::string &file, int code, int line) const
	{
		Hash hash(Pairs{{"before", "1"}});
		EXPECT_EQ(VUNKCFileGetSection(file.c_str(), "a", hash.Address()), -1);
		ExpectError(code, file, line);
		EXPECT_EQ(hash.InOrder(), (Pairs{{"before", "1"}}));

		List list;
		VUNKCSzListPush(list.Address(), "before");
		EXPECT_EQ(VUNKCFileEnumSection(file.c_str(), list.Address()), -1);
		ExpectError(code, file, line);
		EXPECT_EQ(list.Items(), (Strings{"before"}));

		EXPECT_EQ(VUNKCIFileModifySection(file.c_str(), "a", nullptr, hash.Get(), 1, 0), -1);
		ExpectError(code, file, line);
		EXPECT_EQ(VUNKCFileRemoveSection(file.c_str(), "a"), -1);
		ExpectError(code, file, line);
		if (code == VUNKC_ERR_FILE_MISSING)
			return; // nothing that stops a section from being added
		EXPECT_EQ(VUNKCFileAddSection(file.c_str(), "new", hash.Get()), -1);
		ExpectError(code, file, line);
	}

	void ExpectSyntaxError(std::string_view text, int line) const
	{
		SCOPED_TRACE(testing::PrintToString(text));
		Write(text);
		ExpectUnreadable(path, VUNKC_ERR_SYNTAX, line);
		EXPECT_EQ(Text(), text);
	}

	const kit::TempDir dir;
	const std::string path = dir.Path("sections.conf");
};

TEST_F(SectionFile, ReadsThePairsOfOneSection)
{
	Write("[a]\nx=1\n[b]\nx=2\ny=3\n[c]\n");
	Hash hash;
	EXPECT_EQ(Get("b", hash), 2);
	EXPECT_EQ(hash.InOrder(), (Pairs{{"x", "2"}, {"y", "3"}}));
	EXPECT_EQ(Section("a"), (Pairs{{"x", "1"}}));
}

TEST_F(SectionFile, AnEmptySectionHasNoPairs)
{
	Write("[a]\n[b]\n# x=1\n\n[c]");
	Hash hash;
	EXPECT_EQ(Get("a", hash), 0);
	EXPECT_EQ(Get("b", hash), 0);
	EXPECT_EQ(Get("c", hash), 0);
}

TEST_F(SectionFile, ReadingReplacesValuesAndKeepsOtherPairs)
{
	Write("[a]\ny=new\nz=3\nz=4\n");
	Hash hash(Pairs{{"x", "1"}, {"y", "2"}});
	EXPECT_EQ(Get("a", hash), 3);
	EXPECT_EQ(hash.InOrder(), (Pairs{{"x", "1"}, {"y", "new"}, {"z", "4"}}));
}

TEST_F(SectionFile, ASectionHasThePairsOfAllItsOccurrences)
{
	Write("[a]\nx=1\ny=2\n[b]\nx=0\n[a]\nx=3\nz=4\n");
	EXPECT_EQ(Section("a"), (Pairs{{"x", "3"}, {"y", "2"}, {"z", "4"}}));
}

TEST_F(SectionFile, TheNameStandsBetweenTheFirstAndTheLastBracket)
{
	Write("  [ \t a b \r]  \r\n[[c]\n[d]]\n[e] [f]\n[#g]\n[h=1]\n");
	EXPECT_EQ(Sections(), (Strings{"a b", "[c", "d]", "e] [f", "#g", "h=1"}));
}

TEST_F(SectionFile, UpperAndLowerCaseOfNamesDiffer)
{
	Write("[a]\nx=1\n[A]\nx=2\n");
	EXPECT_EQ(Section("A"), (Pairs{{"x", "2"}}));
	Hash hash;
	Write("[a]\nx=1\n");
	EXPECT_EQ(Get("A", hash), -1);
}

TEST_F(SectionFile, ReadsFilesWithByteOrderMarkAndCarriageReturns)
{
	Write("\xEF\xBB\xBF[a]\r\nx = 1\r\n\r\n[b]\r\nx=\"2 \"");
	EXPECT_EQ(Sections(), (Strings{"a", "b"}));
	EXPECT_EQ(Section("a"), (Pairs{{"x", "1"}}));
	EXPECT_EQ(Section("b"), (Pairs{{"x", "2 "}}));
}

TEST_F(SectionFile, GivesTheNamesInFileOrder)
{
	Write("# head\n[b]\nx=1\n[a]\n[b]\n");
	List list;
	VUNKCSzListPush(list.Address(), "before");
	EXPECT_EQ(VUNKCFileEnumSection(path.c_str(), list.Address()), 3);
	EXPECT_EQ(list.Items(), (Strings{"before", "b", "a", "b"}));
	Write("");
	EXPECT_EQ(VUNKCFileEnumSection(path.c_str(), list.Address()), 0);
	EXPECT_EQ(list.Items(), (Strings{"before", "b", "a", "b"}));
}

TEST_F(SectionFile, SaysThatASectionIsMissing)
{
	Write("[a]\nx=1\n");
	for (const char *name : {"b", "", " a", "a ", "[a]", "x"}) {
		Hash hash(Pairs{{"before", "1"}});
		EXPECT_EQ(Get(name, hash), -1) << name;
		ExpectError(VUNKC_ERR_SECTION_MISSING, path, 0);
		EXPECT_EQ(hash.InOrder(), (Pairs{{"before", "1"}}));
	}
}

TEST_F(SectionFile, APairBeforeTheFirstHeaderMakesTheFileUnreadable)
{
	ExpectSyntaxError("# x\nx=1\n[a]\n", 2);
	ExpectSyntaxError("x=1", 1);
}

TEST_F(SectionFile, AnyOtherLineMakesTheWholeFileUnreadable)
{
	using namespace std::string_view_literals;
	ExpectSyntaxError("[a]\nx=1\n[b]\nword\n", 4);
	ExpectSyntaxError("[]\n", 1);
	ExpectSyntaxError("[a]\n[ \t ]\n", 2);
	ExpectSyntaxError("[\n", 1);
	ExpectSyntaxError("[a\n", 1);
	ExpectSyntaxError("a]\n", 1);
	ExpectSyntaxError("[a] # comment\n", 1);
	ExpectSyntaxError("[a]\n[b] = 1\n", 2);
	ExpectSyntaxError("[a]\n=1\n", 2);
	ExpectSyntaxError("[a]\r\n\r\nword\r\n", 3);
	ExpectSyntaxError("[a]\nx=1\n#\0\n"sv, 3);
	ExpectSyntaxError("[a\0]\n"sv, 1);
	ExpectSyntaxError("[a]\n[b]\nx=1\nx=\0\n[c]\n"sv, 4);
	ExpectSyntaxError("[a]\n[b]\nx=1\nword", 4);
	ExpectSyntaxError("[a]\n\xEF\xBB\xBF[b]\n", 2);
}

TEST_F(SectionFile, SaysWhyAFileCannotBeRead)
{
	ExpectUnreadable(path, VUNKC_ERR_FILE_MISSING, 0);
	ExpectUnreadable(dir.Path("no/file"), VUNKC_ERR_FILE_MISSING, 0);
	ExpectUnreadable(dir.Path(), VUNKC_ERR_FILE_READ, 0);
	std::filesystem::create_symlink(path, path);
	ExpectUnreadable(path, VUNKC_ERR_FILE_OPEN, 0);
	EXPECT_EQ(kit::Names(dir.Path()), (std::set<std::string>{"sections.conf"}));
}

TEST_F(SectionFile, AddsASectionAtTheEnd)
{
	Write("# head\n[a]\nx = 1 \n\n# tail\n");
	EXPECT_EQ(Add("b", {{"y", "2"}, {"x", ""}}), 1);
	EXPECT_EQ(Text(), "# head\n[a]\nx = 1 \n\n# tail\n[b]\ny=\"2\"\nx=\"\"\n");
}

TEST_F(SectionFile, AddsASectionToAMissingOrEmptyFile)
{
	EXPECT_EQ(Add("a", {}), 1);
	EXPECT_EQ(Text(), "[a]\n");
	Write("");
	EXPECT_EQ(Add("a", {{"x", "1"}}), 1);
	EXPECT_EQ(Text(), "[a]\nx=\"1\"\n");
}

TEST_F(SectionFile, AddingEndsALastLineThatHasNoNewline)
{
	for (const char *text : {"[a]", "[a]\nx=1", "[a]\n# comment", "[a]\r\nx=1\r", "[a]\n "}) {
		Write(text);
		EXPECT_EQ(Add("b", {{"y", "2"}}), 1);
		EXPECT_EQ(Text(), text + std::string("\n[b]\ny=\"2\"\n"));
		EXPECT_EQ(Sections(), (Strings{"a", "b"}));
	}
	Write("\xEF\xBB\xBF");
	EXPECT_EQ(Add("b", {}), 1);
	EXPECT_EQ(Sections(), (Strings{"b"}));
}

TEST_F(SectionFile, DoesNotAddASectionThatIsThere)
{
	Write("[ a ]\nx=1\n");
	struct stat before;
	ASSERT_EQ(stat(path.c_str(), &before), 0);
	EXPECT_EQ(Add("a", {{"x", "2"}}), 0);
	EXPECT_EQ(Text(), "[ a ]\nx=1\n");
	struct stat after;
	ASSERT_EQ(stat(path.c_str(), &after), 0);
	EXPECT_EQ(after.st_ino, before.st_ino);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_NONE);
}

TEST_F(SectionFile, ModifyGivesASectionNewPairsInItsPlace)
{
	Write("# head\n\n[a]\nx=1\n# inside\n[b]\nx = 2\n# tail");
	EXPECT_EQ(Modify("a", {{"y", "3"}, {"z", " "}}), 1);
	EXPECT_EQ(Text(), "# head\n\n[a]\ny=\"3\"\nz=\" \"\n[b]\nx = 2\n# tail");
	EXPECT_EQ(Modify("b", {}), 1);
	EXPECT_EQ(Text(), "# head\n\n[a]\ny=\"3\"\nz=\" \"\n[b]\n");
}

TEST_F(SectionFile, ModifyKeepsTheFirstOccurrenceOnly)
{
	Write("[a]\nx=1\n[b]\nx=2\n[a]\ny=3\n[c]\n[a]");
	EXPECT_EQ(Modify("a", {{"z", "4"}}), 1);
	EXPECT_EQ(Text(), "[a]\nz=\"4\"\n[b]\nx=2\n[c]\n");
	Write("[a]\nx=1\n[a]\ny=3\n");
	EXPECT_EQ(Modify("a", {{"z", "4"}}), 1);
	EXPECT_EQ(Text(), "[a]\nz=\"4\"\n");
}

TEST_F(SectionFile, ModifyEndsAHeaderThatHasNoNewline)
{
	Write("[a]\n[b]");
	EXPECT_EQ(Modify("b", {{"x", "1"}}), 1);
	EXPECT_EQ(Text(), "[a]\n[b]\nx=\"1\"\n");
}

TEST_F(SectionFile, ModifyLeavesWhatIsAroundASectionByteForByte)
{
	const std::string head = "\xEF\xBB\xBF# head\r\n\r\n[ z ]\r\n x = \" 1\"\r\n;\xff\n";
	const std::string header = "\t[ a ]\r\n";
	const std::string tail = " [b]\v\r\nq=1\r\n\r\n#last";
	Write(head + header + "x=1\r\n" + tail);
	EXPECT_EQ(Modify("a", {{"x", "2"}}), 1);
	EXPECT_EQ(Text(), head + header + "x=\"2\"\n" + tail);
	EXPECT_EQ(Remove("a"), 1);
	EXPECT_EQ(Text(), head + tail);
}

TEST_F(SectionFile, AByteOrderMarkBelongsToNoSection)
{
	Write("\xEF\xBB\xBF[a]\nx=1\n[b]\n");
	EXPECT_EQ(Modify("a", {}), 1);
	EXPECT_EQ(Text(), "\xEF\xBB\xBF[a]\n[b]\n");
	EXPECT_EQ(Remove("a"), 1);
	EXPECT_EQ(Text(), "\xEF\xBB\xBF[b]\n");
	EXPECT_EQ(Remove("b"), 1);
	EXPECT_EQ(Text(), "\xEF\xBB\xBF");
	EXPECT_EQ(Sections(), Strings{});
}

TEST_F(SectionFile, RemovesAllOccurrences)
{
	Write("# head\n[a]\nx=1\n# of a\n[b]\n[a]\n[c]\ny=2\n[a]\nz=3");
	EXPECT_EQ(Remove("a"), 1);
	EXPECT_EQ(Text(), "# head\n[b]\n[c]\ny=2\n");
	EXPECT_EQ(Remove("c"), 1);
	EXPECT_EQ(Remove("b"), 1);
	EXPECT_EQ(Text(), "# head\n");
}

TEST_F(SectionFile, DoesNotWriteWhenThereIsNoSuchSection)
{
	Write("[a]\nx=1");
	struct stat before;
	ASSERT_EQ(stat(path.c_str(), &before), 0);
	for (const char *name : {"b", "", " a", "[a]", "a\n"}) {
		EXPECT_EQ(Modify(name, {{"x", "2"}}), 0);
		EXPECT_EQ(Modify(name, {{"", "\n"}}), 0);
		EXPECT_EQ(Remove(name), 0);
	}
	struct stat after;
	ASSERT_EQ(stat(path.c_str(), &after), 0);
	EXPECT_EQ(after.st_ino, before.st_ino);
	EXPECT_EQ(Text(), "[a]\nx=1");
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_NONE);
}

TEST_F(SectionFile, RefusesWhatTheSyntaxCannotHold)
{
	Write("[a]\nx=1");
	for (const char *name : {"", "b\n", "b\nc", " b", "b\t", "\vb", "b\f", "\r", "b\r"}) {
		SCOPED_TRACE(testing::PrintToString(name));
		EXPECT_EQ(Add(name, {}), -1);
		ExpectCode(VUNKC_ERR_NOT_STORABLE);
	}
	for (const auto &[key, value] :
	     Pairs{{"", "1"}, {"[k", "1"}, {"#", ""}, {"k=", ""}, {"k ", ""}, {"k", "a\nb"}}) {
		SCOPED_TRACE(testing::PrintToString(key));
		EXPECT_EQ(Add("b", {{"ok", "1"}, {key, value}}), -1);
		ExpectCode(VUNKC_ERR_NOT_STORABLE);
		EXPECT_EQ(Modify("a", {{"ok", "1"}, {key, value}}), -1);
		ExpectCode(VUNKC_ERR_NOT_STORABLE);
	}
	EXPECT_EQ(Text(), "[a]\nx=1");
	EXPECT_EQ(kit::Names(dir.Path()), (std::set<std::string>{"sections.conf"}));
}

TEST_F(SectionFile, SaysThatAFileCannotBeWritten)
{
	Write("[a]\nx=1\n");
	const std::string link = dir.Path(".sections.conf.new");
	std::filesystem::create_symlink("elsewhere", link);
	EXPECT_EQ(Add("b", {}), -1);
	ExpectError(VUNKC_ERR_FILE_WRITE, path, 0);
	EXPECT_EQ(Modify("a", {}), -1);
	ExpectError(VUNKC_ERR_FILE_WRITE, path, 0);
	EXPECT_EQ(Remove("a"), -1);
	ExpectError(VUNKC_ERR_FILE_WRITE, path, 0);
	EXPECT_EQ(Text(), "[a]\nx=1\n");

	const std::string nowhere = dir.Path("no/file");
	EXPECT_EQ(VUNKCFileAddSection(nowhere.c_str(), "b", Hash().Get()), -1);
	ExpectError(VUNKC_ERR_FILE_WRITE, nowhere, 0);
}

/// A file as it ought to be, kept as sections with their raw text.
struct Model {
	struct Part {
		std::string name;
		std::string raw;
	};
	std::string head;
	std::vector<Part> parts;

	std::string Text() const
	{
		std::string text = head;
		for (const Part &part : parts)
			text += part.raw;
		return text;
	}

	bool Has(const std::string &name) const
	{
		for (const Part &part : parts)
			if (part.name == name)
				return true;
		return false;
	}
};

std::string Written(const Pairs &pairs)
{
	std::string text;
	for (const auto &[key, value] : pairs)
		text += key + "=\"" + value + "\"\n";
	return text;
}

TEST_F(SectionFile, AnyRowOfChangesTouchesNothingElse)
{
	std::mt19937 random(4711);
	const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
	const Strings names{"a", "b", "[", "]", "x y", "#", "=", "\"", "\xEF\xBB\xBF"};
	const Strings heads{"", "\xEF\xBB\xBF", "# head\r\n", "\n\n;\n"};
	const Strings bodies{"", "\n", "# c\n", "k=1\n", " k = \"1\" \r\n\r\n", "k=[\n;[b]\n", "\xEF\xBB\xBF=\n"};
	for (int round = 0; round < 150; ++round) {
		Model model{heads[below(4)], {}};
		for (unsigned count = below(6); count > 0; --count) {
			const std::string &name = names[below(9)];
			const std::string header = (below(2) ? " [ " : "[") + name + (below(2) ? "]\r\n" : "]\n");
			model.parts.push_back({name, header + bodies[below(7)]});
		}
		Write(model.Text());
		for (int change = 0; change < 6; ++change) {
			const std::string &name = names[below(9)];
			const Pairs pairs(below(3), {"k" + std::to_string(change), "\"=\r"});
			const Pairs distinct(pairs.begin(), pairs.begin() + (pairs.empty() ? 0 : 1));
			const int there = model.Has(name) ? 1 : 0;
			const unsigned kind = below(3);
			SCOPED_TRACE(testing::PrintToString(model.Text()) + " " + name + " " + std::to_string(kind));
			if (kind == 0) {
				ASSERT_EQ(Add(name, distinct), 1 - there);
				if (!there) {
					std::string before = model.Text();
					if (!before.empty() && before.back() != '\n')
						model.head +=
							"\n"; // a byte order mark alone is the only such text here
					model.parts.push_back({name, "[" + name + "]\n" + Written(distinct)});
				}
			} else if (kind == 1) {
				ASSERT_EQ(Modify(name, distinct), there);
				bool first = true;
				std::erase_if(model.parts, [&](Model::Part &part) {
					if (part.name != name)
						return false;
					if (!std::exchange(first, false))
						return true;
					part.raw = part.raw.substr(0, part.raw.find('\n') + 1) + Written(distinct);
					return false;
				});
			} else {
				ASSERT_EQ(Remove(name), there);
				std::erase_if(model.parts, [&](const Model::Part &part) { return part.name == name; });
			}
			ASSERT_EQ(Text(), model.Text());
			Strings wanted;
			for (const Model::Part &part : model.parts)
				wanted.push_back(part.name);
			ASSERT_EQ(Sections(), wanted);
		}
	}
}

/// What a text says by the syntax's own words, as plainly as can be: the sections in order, with their pairs; or the bad line.
struct Reading {
	std::vector<std::pair<std::string, Pairs>> sections;
	int badLine = 0;
};

Reading ReadPlainly(std::string text)
{
	const auto trimmed = [](const std::string &line) {
		const size_t begin = line.find_first_not_of(" \t\v\f\r");
		return begin == std::string::npos ? ""
		                                  : line.substr(begin, line.find_last_not_of(" \t\v\f\r") - begin + 1);
	};
	Reading reading;
	if (text.starts_with("\xEF\xBB\xBF"))
		text.erase(0, 3);
	std::istringstream lines(text);
	int number = 0;
	for (std::string line; std::getline(lines, line);) {
		++number;
		const std::string content = trimmed(line);
		const size_t sign = content.find('=');
		const bool isBad = line.find('\0') != std::string::npos;
		if (!isBad && (content.empty() || content[0] == '#' || content[0] == ';'))
			continue;
		if (!isBad && content[0] == '[' && content.back() == ']' && content.size() > 2 &&
		    !trimmed(content.substr(1, content.size() - 2)).empty()) {
			reading.sections.emplace_back(trimmed(content.substr(1, content.size() - 2)), Pairs());
		} else if (!isBad && content[0] != '[' && sign != 0 && sign != std::string::npos &&
		           !reading.sections.empty()) {
			std::string value = trimmed(content.substr(sign + 1));
			if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
				value = value.substr(1, value.size() - 2);
			reading.sections.back().second.emplace_back(trimmed(content.substr(0, sign)), value);
		} else {
			reading.badLine = number;
			break;
		}
	}
	return reading;
}

TEST_F(SectionFile, AnyTextIsReadAsTheSyntaxSays)
{
	std::mt19937 random(4712);
	const Strings good{"[a]\n", "[b]\r\n",          " [ a ] \n", "k=1\n",  "key = \"v\"\n", "K9=a=b\n",
	                   "\n",    "# x=1\n",          ";[a]\n",    "z=\"\n", "_=\"\"\n",      "\tq\v=\f3\n",
	                   "=a]\n", "\xEF\xBB\xBFk=1\n"};
	const Strings bad{"[",  "]",  "[]\n", "[ ]\n", "word\n", "k", "=", "\"", std::string(1, '\0'), "\xEF\xBB\xBF",
	                  "\r", "[a]"};
	int readable = 0;
	for (int round = 0; round < 2000; ++round) {
		std::string text = random() % 4 == 0 ? "" : "[a]\n";
		for (size_t part = random() % 10; part > 0; --part)
			text += random() % 25 == 0 ? bad[random() % bad.size()]
			                           : good[random() % (good.size() - (random() % 8 ? 2 : 0))];
		SCOPED_TRACE(testing::PrintToString(text));
		const Reading wanted = ReadPlainly(text);
		Write(text);
		List list;
		Hash hash;
		if (wanted.badLine != 0) {
			ASSERT_EQ(VUNKCFileEnumSection(path.c_str(), list.Address()), -1);
			ExpectError(VUNKC_ERR_SYNTAX, path, wanted.badLine);
			ASSERT_EQ(Get("a", hash), -1);
			ExpectError(VUNKC_ERR_SYNTAX, path, wanted.badLine);
			ASSERT_EQ(Remove("a"), -1);
			ExpectError(VUNKC_ERR_SYNTAX, path, wanted.badLine);
			ASSERT_FALSE(HasFailure());
			continue;
		}
		++readable;
		Strings names;
		for (const auto &[name, pairs] : wanted.sections)
			names.push_back(name);
		ASSERT_EQ(Sections(), names);
		for (const std::string &name : names) {
			Hash ofSection;
			Hash expected;
			int count = 0;
			for (const auto &[sectionName, pairs] : wanted.sections)
				for (const auto &[key, value] : sectionName == name ? pairs : Pairs()) {
					VUNKCSzHashSetValue(expected.Address(), key.c_str(), value.c_str());
					++count;
				}
			ASSERT_EQ(Get(name, ofSection), count);
			ASSERT_EQ(ofSection.InOrder(), expected.InOrder());
		}
	}
	EXPECT_GT(readable, 500);
	EXPECT_LT(readable, 1750);
}

TEST_F(SectionFile, SuccessLeavesTheErrorStackAsItWas)
{
	VUNKCErrSetEx(1234, "somewhere", 5);
	EXPECT_EQ(Add("a", {{"x", "1"}}), 1); // the missing file is no failure
	EXPECT_EQ(Add("a", {}), 0);
	EXPECT_EQ(Modify("a", {{"x", "2"}}), 1);
	EXPECT_EQ(Modify("b", {}), 0);
	EXPECT_EQ(Section("a"), (Pairs{{"x", "2"}}));
	EXPECT_EQ(Sections(), (Strings{"a"}));
	EXPECT_EQ(Remove("a"), 1);
	EXPECT_EQ(Remove("a"), 0);
	ExpectError(1234, "somewhere", 5);
}

TEST_F(SectionFile, RefusesWrongArguments)
{
	Write("[a]\nx=1\n");
	Hash hash;
	VUNKSZHASH *noHash = nullptr;
	VUNKSZLIST *noList = nullptr;
	const char *const file = path.c_str();
	const auto refused = [&](int result) {
		EXPECT_EQ(result, -1);
		ExpectCode(VUNKC_ERR_BAD_ARGUMENT);
	};
	refused(VUNKCFileGetSection(nullptr, "a", hash.Address()));
	refused(VUNKCFileGetSection(file, nullptr, hash.Address()));
	refused(VUNKCFileGetSection(file, "a", nullptr));
	refused(VUNKCFileGetSection(file, "a", &noHash));
	List list;
	refused(VUNKCFileEnumSection(nullptr, list.Address()));
	refused(VUNKCFileEnumSection(file, nullptr));
	refused(VUNKCFileEnumSection(file, &noList));
	refused(VUNKCFileAddSection(nullptr, "b", hash.Get()));
	refused(VUNKCFileAddSection(file, nullptr, hash.Get()));
	refused(VUNKCFileAddSection(file, "b", nullptr));
	refused(VUNKCIFileModifySection(nullptr, "a", nullptr, hash.Get(), 1, 0));
	refused(VUNKCIFileModifySection(file, nullptr, nullptr, hash.Get(), 1, 0));
	refused(VUNKCIFileModifySection(file, "a", "b", hash.Get(), 1, 0));
	refused(VUNKCIFileModifySection(file, "a", nullptr, nullptr, 1, 0));
	refused(VUNKCIFileModifySection(file, "a", nullptr, hash.Get(), 0, 0));
	refused(VUNKCIFileModifySection(file, "a", nullptr, hash.Get(), 2, 0));
	refused(VUNKCIFileModifySection(file, "a", nullptr, hash.Get(), 1, 1));
	refused(VUNKCFileRemoveSection(nullptr, "a"));
	refused(VUNKCFileRemoveSection(file, nullptr));
	EXPECT_EQ(Text(), "[a]\nx=1\n");
}

TEST_F(SectionFile, LeaksNoDescriptor)
{
	const std::set<int> before = kit::OpenDescriptors();
	Hash hash;
	EXPECT_EQ(Add("a", {{"x", "1"}}), 1);
	EXPECT_EQ(Add("a", {}), 0);
	EXPECT_EQ(Add("", {}), -1);
	EXPECT_EQ(Get("a", hash), 1);
	EXPECT_EQ(Get("b", hash), -1);
	EXPECT_EQ(Modify("a", {}), 1);
	EXPECT_EQ(Remove("a"), 1);
	Write("word");
	EXPECT_EQ(Remove("a"), -1);
	EXPECT_EQ(kit::OpenDescriptors(), before);
}

} // namespace
