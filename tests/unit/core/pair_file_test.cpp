#include "kit/files.h"

#include <vunkcore/error.h>
#include <vunkcore/pair_file.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// A hash that is released with its owner.
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
		VUNKSZLIST *keys = VUNKCSzListAlloc(1);
		VUNKCSzHashEnumKey(hash, &keys);
		Pairs pairs;
		for (int i = 0; i < keys->nItem; ++i) {
			const char *key = VUNKCSzListGet(keys, i);
			pairs.emplace_back(key, VUNKCSzHashGetValue(hash, key));
		}
		VUNKCSzListFree(keys);
		return pairs;
	}

private:
	VUNKSZHASH *hash = VUNKCSzHashAlloc(1);
};

/// The file of a test, and a clear error stack at its start.
class PairFile : public testing::Test {
protected:
	PairFile() { VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0); }

	int Get(Hash &hash) const { return VUNKCFileGetPair(path.c_str(), hash.Address()); }
	int Set(const Pairs &pairs) const { return VUNKCFileSetPair(path.c_str(), Hash(pairs).Get(), 0); }

	/// What a text says; the hash must take all of it.
	Pairs Read(std::string_view text) const
	{
		kit::WriteFile(path, text);
		Hash hash;
		EXPECT_GE(Get(hash), 0) << text;
		return hash.InOrder();
	}

	void ExpectError(int code, const std::string &file, int line) const
	{
		EXPECT_EQ(VUNKCErrGet(), code);
		EXPECT_EQ(VUNKCErrorGetFile(), file);
		EXPECT_EQ(VUNKCErrorGetLine(), line);
		VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0);
	}

	void ExpectSyntaxError(std::string_view text, int line) const
	{
		SCOPED_TRACE(testing::PrintToString(text));
		kit::WriteFile(path, text);
		Hash hash(Pairs{{"before", "1"}});
		EXPECT_EQ(Get(hash), -1);
		ExpectError(VUNKC_ERR_SYNTAX, path, line);
		EXPECT_EQ(hash.InOrder(), (Pairs{{"before", "1"}}));
	}

	void ExpectRefused(int code) const
	{
		EXPECT_EQ(VUNKCErrGet(), code);
		VUNKCErrSetEx(VUNKC_ERR_NONE, "", 0);
	}

	const kit::TempDir dir;
	const std::string path = dir.Path("pairs.conf");
};

TEST_F(PairFile, ReadsKeysAndValues)
{
	EXPECT_EQ(Read("a=1\nb=2\n"), (Pairs{{"a", "1"}, {"b", "2"}}));
}

TEST_F(PairFile, GivesTheNumberOfPairs)
{
	kit::WriteFile(path, "a=1\n# b=2\n\nc=3\na=4\n");
	Hash hash;
	EXPECT_EQ(Get(hash), 3);
}

TEST_F(PairFile, TheLastLineMayLackItsNewline)
{
	EXPECT_EQ(Read("a=1\nb=2"), (Pairs{{"a", "1"}, {"b", "2"}}));
}

TEST_F(PairFile, AnEmptyFileHasNoPairs)
{
	for (const char *text : {"", "\n", "\n\n \t\n", "# only\n;comments", "\xEF\xBB\xBF", "\r\n\r\n"}) {
		kit::WriteFile(path, text);
		Hash hash;
		EXPECT_EQ(Get(hash), 0) << testing::PrintToString(text);
	}
}

TEST_F(PairFile, BlanksAroundLinesKeysAndValuesDoNotCount)
{
	EXPECT_EQ(Read(" \t\v\f\ra \t\v\f\r= \t\v\f\r1 2 \t\v\f\r\n"), (Pairs{{"a", "1 2"}}));
	EXPECT_EQ(Read("a b  c = d\te\n"), (Pairs{{"a b  c", "d\te"}}));
}

TEST_F(PairFile, ReadsFilesWithCarriageReturns)
{
	EXPECT_EQ(Read("# x\r\n\r\na=1\r\nb=\"2 \"\r\nc=\r\n"), (Pairs{{"a", "1"}, {"b", "2 "}, {"c", ""}}));
}

TEST_F(PairFile, AByteOrderMarkCountsOnlyBehindTheFirst)
{
	EXPECT_EQ(Read("\xEF\xBB\xBF"
	               "a=1\n"),
	          (Pairs{{"a", "1"}}));
	EXPECT_EQ(Read("\xEF\xBB\xBF \t# a=1\nb=2\n"), (Pairs{{"b", "2"}}));
	EXPECT_EQ(Read("\xEF\xBB\xBF\xEF\xBB\xBF"
	               "a=1\n"),
	          (Pairs{{"\xEF\xBB\xBF"
	                  "a",
	                  "1"}}));
	EXPECT_EQ(Read("a=1\n\xEF\xBB\xBF"
	               "b=2\n"),
	          (Pairs{{"a", "1"},
	                 {"\xEF\xBB\xBF"
	                  "b",
	                  "2"}}));
}

TEST_F(PairFile, CommentsAreWholeLines)
{
	EXPECT_EQ(Read("#a=1\n;b=2\n  # c=3\n\t;d=4\ne=5 # f\n"), (Pairs{{"e", "5 # f"}}));
}

TEST_F(PairFile, TheKeyEndsAtTheFirstEqualSign)
{
	EXPECT_EQ(Read("a=b=c\nd==\n"), (Pairs{{"a", "b=c"}, {"d", "="}}));
}

TEST_F(PairFile, QuotesKeepWhatStandsBetweenThem)
{
	EXPECT_EQ(Read("a=\" x \"\n"), (Pairs{{"a", " x "}}));
	EXPECT_EQ(Read("a=\"x\"y\"\n"), (Pairs{{"a", "x\"y"}}));
	EXPECT_EQ(Read("a=\"\"\nb=\"\"\"\n"), (Pairs{{"a", ""}, {"b", "\""}}));
	EXPECT_EQ(Read("a=\"x\\\"\n"), (Pairs{{"a", "x\\"}}));
}

TEST_F(PairFile, AQuoteAtOneEndIsPartOfTheValue)
{
	EXPECT_EQ(Read("a=\"\nb=\"x\nc=x\"\nd=\"x\" y\n"),
	          (Pairs{{"a", "\""}, {"b", "\"x"}, {"c", "x\""}, {"d", "\"x\" y"}}));
	EXPECT_EQ(Read("\"a\"=1\n'b'='2'\n"), (Pairs{{"\"a\"", "1"}, {"'b'", "'2'"}}));
}

TEST_F(PairFile, AnEmptyValueIsAValue)
{
	EXPECT_EQ(Read("a=\nb= \n"), (Pairs{{"a", ""}, {"b", ""}}));
}

TEST_F(PairFile, AKeyThatOccursTwiceHasTheLastValueInThePlaceOfTheFirst)
{
	EXPECT_EQ(Read("a=1\nb=2\na=3\n"), (Pairs{{"a", "3"}, {"b", "2"}}));
}

TEST_F(PairFile, UpperAndLowerCaseOfKeysDiffer)
{
	EXPECT_EQ(Read("a=1\nA=2\n"), (Pairs{{"a", "1"}, {"A", "2"}}));
}

TEST_F(PairFile, ReadingReplacesValuesAndKeepsOtherPairs)
{
	kit::WriteFile(path, "b=new\nc=3\n");
	Hash hash(Pairs{{"a", "1"}, {"b", "2"}});
	EXPECT_EQ(Get(hash), 2);
	EXPECT_EQ(hash.InOrder(), (Pairs{{"a", "1"}, {"b", "new"}, {"c", "3"}}));
}

TEST_F(PairFile, AnyOtherLineMakesTheFileUnreadable)
{
	ExpectSyntaxError("word\n", 1);
	ExpectSyntaxError("a=1\n\n# x\nword\nb=2\n", 4);
	ExpectSyntaxError("a=1\r\nword", 2);
	ExpectSyntaxError("=1\n", 1);
	ExpectSyntaxError("a=1\n \t =1\n", 2);
	ExpectSyntaxError("a=1\n[b]\n", 2);
	ExpectSyntaxError("[a\n", 1);
	ExpectSyntaxError("[\n", 1);
	ExpectSyntaxError("a=1\n[b]=2\n", 2);
	ExpectSyntaxError("[b=2\n", 1);
	ExpectSyntaxError("\xEF\xBB\xBF\n\xEF\xBB\xBF", 2);
	ExpectSyntaxError("a=1\nfirst\nsecond\n", 2);
}

TEST_F(PairFile, ANulByteMakesTheFileUnreadableWhereverItStands)
{
	using namespace std::string_view_literals;
	ExpectSyntaxError("\0"sv, 1);
	ExpectSyntaxError("a=1\nb\0=2\n"sv, 2);
	ExpectSyntaxError("a=1\nb=2\0\n"sv, 2);
	ExpectSyntaxError("a=1\n\nb=\"2\0\"\n"sv, 3);
	ExpectSyntaxError("# comment\0\na=1\n"sv, 1);
	ExpectSyntaxError("a=1\n\0"sv, 2);
	ExpectSyntaxError("word\n\0"sv, 1);
}

TEST_F(PairFile, ReadsLinesOfAnyLength)
{
	const std::string key(3'000'000, 'k');
	const std::string value(5'000'000, 'v');
	EXPECT_EQ(Read(key + "=" + value), (Pairs{{key, value}}));
}

TEST_F(PairFile, SaysThatAFileIsMissing)
{
	Hash hash(Pairs{{"a", "1"}});
	EXPECT_EQ(Get(hash), -1);
	ExpectError(VUNKC_ERR_FILE_MISSING, path, 0);
	EXPECT_EQ(hash.InOrder(), (Pairs{{"a", "1"}}));

	kit::WriteFile(path, "");
	const std::string below = path + "/file";
	EXPECT_EQ(VUNKCFileGetPair(below.c_str(), hash.Address()), -1);
	ExpectError(VUNKC_ERR_FILE_MISSING, below, 0);

	EXPECT_EQ(VUNKCFileGetPair("", hash.Address()), -1);
	ExpectError(VUNKC_ERR_FILE_MISSING, "", 0);
}

TEST_F(PairFile, SaysThatAFileCannotBeOpened)
{
	std::filesystem::create_symlink(path, path); // a loop, which stops root as well
	Hash hash(Pairs{{"a", "1"}});
	EXPECT_EQ(Get(hash), -1);
	ExpectError(VUNKC_ERR_FILE_OPEN, path, 0);
	EXPECT_EQ(hash.InOrder(), (Pairs{{"a", "1"}}));
}

TEST_F(PairFile, ReadsNothingButRegularFiles)
{
	Hash hash(Pairs{{"a", "1"}});
	EXPECT_EQ(VUNKCFileGetPair(dir.Path().c_str(), hash.Address()), -1);
	ExpectError(VUNKC_ERR_FILE_READ, dir.Path(), 0);

	ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); // without a writer: an open that waits for one would never return
	EXPECT_EQ(Get(hash), -1);
	ExpectError(VUNKC_ERR_FILE_READ, path, 0);

	EXPECT_EQ(VUNKCFileGetPair("/dev/null", hash.Address()), -1);
	ExpectError(VUNKC_ERR_FILE_READ, "/dev/null", 0);
	EXPECT_EQ(hash.InOrder(), (Pairs{{"a", "1"}}));
}

TEST_F(PairFile, ReadsThroughSymbolicLinks)
{
	kit::WriteFile(dir.Path("real"), "a=1\n");
	std::filesystem::create_symlink("real", path);
	Hash hash;
	EXPECT_EQ(Get(hash), 1);
}

TEST_F(PairFile, ReadsFilesWhoseSizeIsNotKnownBeforehand)
{
	Hash hash;
	EXPECT_EQ(VUNKCFileGetPair("/proc/cpuinfo", hash.Address()), -1); // readable, but "word : value" is no pair
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SYNTAX);
	EXPECT_STREQ(VUNKCErrorGetFile(), "/proc/cpuinfo");
}

TEST_F(PairFile, ReadsFilesUpTo256MiB)
{
	kit::WriteFile(path, "a=1\n");
	ASSERT_EQ(truncate(path.c_str(), (256 << 20) + 1), 0);
	Hash hash;
	EXPECT_EQ(Get(hash), -1);
	ExpectError(VUNKC_ERR_FILE_READ, path, 0);

	ASSERT_EQ(truncate(path.c_str(), 256 << 20), 0);
	EXPECT_EQ(Get(hash), -1); // it has been read, and its hole is NUL bytes
	ExpectError(VUNKC_ERR_SYNTAX, path, 2);
}

TEST_F(PairFile, WritesThePairsInTheirOrder)
{
	EXPECT_EQ(Set({{"b", "2"}, {"a", ""}, {"c d", " x\"y "}}), 0);
	EXPECT_EQ(kit::ReadFile(path), "b=\"2\"\na=\"\"\nc d=\" x\"y \"\n");
}

TEST_F(PairFile, WritingReplacesTheWholeContent)
{
	kit::WriteFile(path, "# comment\nold=1\nnot a pair\n");
	EXPECT_EQ(Set({{"new", "2"}}), 0);
	EXPECT_EQ(kit::ReadFile(path), "new=\"2\"\n");
	EXPECT_EQ(Set({}), 0);
	EXPECT_EQ(kit::ReadFile(path), "");
}

TEST_F(PairFile, RefusesWhatTheSyntaxCannotHold)
{
	kit::WriteFile(path, "old=1\n");
	for (const char *key :
	     {"", "a=b", "=", "a\nb", "\n", " a", "a ", "\ta", "a\v", "\fa", "a\r", " ", "#a", ";a", "[a", "[a]"}) {
		SCOPED_TRACE(testing::PrintToString(key));
		EXPECT_EQ(Set({{"ok", "1"}, {key, "2"}}), -1);
		ExpectRefused(VUNKC_ERR_NOT_STORABLE);
	}
	for (const char *value : {"\n", "a\nb", "a\n"}) {
		SCOPED_TRACE(testing::PrintToString(value));
		EXPECT_EQ(Set({{"ok", "1"}, {"key", value}}), -1);
		ExpectRefused(VUNKC_ERR_NOT_STORABLE);
	}
	EXPECT_EQ(kit::ReadFile(path), "old=1\n");
	EXPECT_EQ(kit::Names(dir.Path()), (std::set<std::string>{"pairs.conf"}));
}

TEST_F(PairFile, ReadsBackWhatItWrote)
{
	const Pairs pairs{{"a#b", "#"},
	                  {"a;b", ";"},
	                  {"a[b]", "[x]"},
	                  {"]", "\r"},
	                  {"\"q\"", "\""},
	                  {"a\rb", " \t"},
	                  {"x\\", "\\"},
	                  {"\xff\x80", "\xff\"=\""},
	                  {"\xEF\xBB\xBFx", "\xEF\xBB\xBF"}};
	EXPECT_EQ(Set(pairs), 0);
	Hash hash;
	EXPECT_EQ(Get(hash), static_cast<int>(pairs.size()));
	EXPECT_EQ(hash.InOrder(), pairs);
}

TEST_F(PairFile, ReadsBackAFirstKeyThatBeginsLikeAByteOrderMark)
{
	const Pairs pairs{{"\xEF\xBB\xBF", "1"}, {"b", "2"}};
	EXPECT_EQ(Set(pairs), 0);
	Hash hash;
	EXPECT_EQ(Get(hash), 2);
	EXPECT_EQ(hash.InOrder(), pairs);
}

/// The rule for keys, stated a second time and in another way than in the library.
bool CanBeAKey(const std::string &key)
{
	const std::string blanks = " \t\v\f\r";
	return !key.empty() && key.find('=') == std::string::npos && key.find('\n') == std::string::npos &&
	       blanks.find(key[0]) == std::string::npos && blanks.find(key[key.size() - 1]) == std::string::npos &&
	       std::string("#;[").find(key[0]) == std::string::npos;
}

class NastyText {
public:
	explicit NastyText(unsigned seed) : random(seed) {}

	std::string operator()()
	{
		static constexpr std::string_view kAlphabet[] = {
			"a",  "B",  "=",    "\"",           "#",   ";", "[", "]", " ", "\t", "'", ".", "\r", "\v", "\f",
			"\\", "\n", "\xff", "\xEF\xBB\xBF", "\x01"};
		std::string text;
		for (unsigned length = Below(7); length > 0; --length)
			text += kAlphabet[Below(std::size(kAlphabet))];
		return text;
	}

	unsigned Below(size_t limit) { return static_cast<unsigned>(random() % limit); }

private:
	std::mt19937 random;
};

TEST_F(PairFile, HoldsEveryPairThatItDoesNotRefuseAndNoOther)
{
	NastyText text(20240229);
	int held = 0;
	int refused = 0;
	for (int round = 0; round < 500; ++round) {
		Pairs pairs;
		for (unsigned count = text.Below(4); count > 0; --count)
			pairs.emplace_back(text(), text());
		Hash wanted(pairs);
		bool storable = true;
		for (const auto &[key, value] : wanted.InOrder())
			storable = storable && CanBeAKey(key) && value.find('\n') == std::string::npos;

		const std::string before = "round=\"" + std::to_string(round) + "\"\n";
		kit::WriteFile(path, before);
		SCOPED_TRACE(testing::PrintToString(pairs));
		ASSERT_EQ(VUNKCFileSetPair(path.c_str(), wanted.Get(), 0), storable ? 0 : -1);
		if (!storable) {
			++refused;
			ASSERT_EQ(kit::ReadFile(path), before);
			ASSERT_EQ(VUNKCErrGet(), VUNKC_ERR_NOT_STORABLE);
			continue;
		}
		++held;
		Hash read;
		ASSERT_EQ(Get(read), static_cast<int>(wanted.InOrder().size()));
		ASSERT_EQ(read.InOrder(), wanted.InOrder());
	}
	EXPECT_GT(held, 100);
	EXPECT_GT(refused, 100);
}

TEST_F(PairFile, WhateverCanBeReadCanBeWrittenAndReadAgain)
{
	NastyText text(7);
	int readable = 0;
	for (int round = 0; round < 1000; ++round) {
		std::string content;
		for (unsigned count = text.Below(4); count > 0; --count)
			content += text() + (text.Below(4) != 0 ? "=" : "") + text() + "\n";
		kit::WriteFile(path, content);
		SCOPED_TRACE(testing::PrintToString(content));
		Hash first;
		if (Get(first) < 0) {
			ASSERT_EQ(VUNKCErrGet(), VUNKC_ERR_SYNTAX);
			ASSERT_TRUE(first.InOrder().empty());
			continue;
		}
		++readable;
		ASSERT_EQ(VUNKCFileSetPair(path.c_str(), first.Get(), 0), 0);
		Hash second;
		ASSERT_EQ(Get(second), static_cast<int>(first.InOrder().size()));
		ASSERT_EQ(second.InOrder(), first.InOrder());
	}
	EXPECT_GT(readable, 100);
}

TEST_F(PairFile, SuccessLeavesTheErrorStackAsItWas)
{
	VUNKCErrSetEx(1234, "somewhere", 5);
	EXPECT_EQ(Set({{"a", "1"}}), 0);
	EXPECT_EQ(Set({{"a", "2"}}), 0);
	Hash hash;
	EXPECT_EQ(Get(hash), 1);
	ExpectError(1234, "somewhere", 5);
}

TEST_F(PairFile, RefusesWrongArguments)
{
	kit::WriteFile(path, "a=1\n");
	Hash hash;
	VUNKSZHASH *none = nullptr;
	const auto refused = [&](int result) {
		EXPECT_EQ(result, -1);
		ExpectRefused(VUNKC_ERR_BAD_ARGUMENT);
	};
	refused(VUNKCFileGetPair(nullptr, hash.Address()));
	refused(VUNKCFileGetPair(path.c_str(), nullptr));
	refused(VUNKCFileGetPair(path.c_str(), &none));
	refused(VUNKCFileSetPair(nullptr, hash.Get(), 0));
	refused(VUNKCFileSetPair(path.c_str(), nullptr, 0));
	refused(VUNKCFileSetPair(path.c_str(), hash.Get(), 1));
	refused(VUNKCFileSetPair(path.c_str(), hash.Get(), -1));
	EXPECT_EQ(kit::ReadFile(path), "a=1\n");
}

TEST_F(PairFile, LeaksNoDescriptor)
{
	const std::set<int> before = kit::OpenDescriptors();
	Hash hash;
	EXPECT_EQ(Get(hash), -1);
	EXPECT_EQ(VUNKCFileGetPair(dir.Path().c_str(), hash.Address()), -1);
	EXPECT_EQ(Set({{"a", "1"}}), 0);
	EXPECT_EQ(Get(hash), 1);
	EXPECT_EQ(Set({{"", "1"}}), -1);
	kit::WriteFile(path, "word");
	EXPECT_EQ(Get(hash), -1);
	EXPECT_EQ(kit::OpenDescriptors(), before);
}

} // namespace
