// A section file that is large enough to be kept while its sections are asked for in turn, and everything that can happen to it
// meanwhile.

#include "kit/files.h"

#include <vunkcore/error.h>
#include <vunkcore/section_file.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

/// Of the sanitizers, whose allocators take the place of the C library's.
extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes();

namespace {

namespace fs = std::filesystem;

constexpr int kSections = 2000;

std::string Value(int number)
{
	return std::to_string(100'000 + number);
}

std::string TextOf(int sections)
{
	std::string text;
	for (int i = 0; i < sections; ++i)
		text += "[" + std::to_string(i) + "]\nvalue=\"" + Value(i) +
		        "\"\nnote=\"of this section, for its size\"\n";
	return text;
}

/// The value of a section, or the error code.
std::string Get(const std::string &path, const std::string &section)
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(8);
	const int count = VUNKCFileGetSection(path.c_str(), section.c_str(), &hash);
	const char *const value = VUNKCSzHashGetValue(hash, "value");
	const std::string result = count < 0 ? "error " + std::to_string(VUNKCErrGet()) : value == nullptr ? "" : value;
	VUNKCSzHashFree(hash);
	return result;
}

std::string Error(int code)
{
	return "error " + std::to_string(code);
}

void AskForNames(const std::string &path)
{
	VUNKSZLIST *names = VUNKCSzListAlloc(8);
	EXPECT_GT(VUNKCFileEnumSection(path.c_str(), &names), 0);
	VUNKCSzListFree(names);
}

void Overwrite(const std::string &path, size_t at, std::string_view text)
{
	const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
	EXPECT_EQ(pwrite(file, text.data(), text.size(), static_cast<off_t>(at)), static_cast<ssize_t>(text.size()));
	close(file);
}

class KeptSections : public testing::Test {
protected:
	KeptSections() { Write(); }

	void Write() const { kit::WriteFile(path, text); }
	std::string Get(int section) const { return ::Get(path, std::to_string(section)); }

	/// Waits until the file has not been changed for longer than the clock of its stamps takes from one tick to the next.
	void Settle() const
	{
		const auto milliseconds = [](const timespec &time) {
			return time.tv_sec * 1000LL + time.tv_nsec / 1'000'000;
		};
		struct stat status = {};
		timespec now = {};
		do {
			usleep(10'000);
			ASSERT_EQ(stat(path.c_str(), &status), 0);
			clock_gettime(CLOCK_REALTIME, &now);
		} while (milliseconds(now) - milliseconds(status.st_ctim) < 120);
	}

	void HaveItKept() const
	{
		Settle();
		for (int i = 0; i < 3; ++i)
			ASSERT_EQ(Get(i), Value(i));
	}

	const kit::TempDir dir;
	const std::string path = dir.Path("sections.conf");
	const std::string text = TextOf(kSections);
};

bool CountsReading()
{
	return fs::exists("/proc/self/io");
}

size_t BytesReadBy(const std::function<void()> &action)
{
	const auto bytes = [] { return std::stoull(kit::ReadFile("/proc/self/io").substr(sizeof("rchar:"))); };
	const auto before = bytes();
	action();
	return bytes() - before;
}

TEST_F(KeptSections, AFileIsReadTwiceHoweverManySectionsAreAskedFor)
{
	if (!CountsReading())
		GTEST_SKIP() << "the kernel does not count what is read";
	Settle();
	const size_t all = BytesReadBy([&] {
		for (int i = 0; i < kSections; ++i)
			ASSERT_EQ(Get(i), Value(i));
	});
	EXPECT_GE(all, 2 * text.size());
	EXPECT_LT(all, 3 * text.size());
}

TEST_F(KeptSections, ASmallFileIsReadEachTime)
{
	if (!CountsReading())
		GTEST_SKIP() << "the kernel does not count what is read";
	const std::string small = TextOf(100);
	kit::WriteFile(path, small);
	Settle();
	const size_t all = BytesReadBy([&] {
		for (int i = 0; i < 10; ++i)
			ASSERT_EQ(Get(i), Value(i));
	});
	EXPECT_GE(all, 10 * small.size());
}

TEST_F(KeptSections, AFileThatHasJustBeenChangedIsReadEachTime)
{
	// A further change could get the same stamp.
	if (!CountsReading())
		GTEST_SKIP() << "the kernel does not count what is read";
	for (int attempt = 0; attempt < 100; ++attempt) {
		const auto start = std::chrono::steady_clock::now();
		Write();
		const size_t all = BytesReadBy([&] {
			for (int i = 0; i < 4; ++i)
				ASSERT_EQ(Get(i), Value(i));
		});
		if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(90))
			continue; // too slow to tell
		EXPECT_GE(all, 4 * text.size());
		return;
	}
	GTEST_SKIP() << "this machine is too slow";
}

TEST_F(KeptSections, ReadsAgainWhatHasBeenChangedInAnyWay)
{
	struct Change {
		const char *what;
		std::function<void()> change;
		std::string value; // of section 3 afterwards
	};
	std::string other = text;
	const size_t place = other.find("[3]\nvalue=\"") + 11;
	other.replace(place, 6, "changed", 6);
	struct stat before = {};
	const auto restoreTimes = [&](const std::string &file) {
		const timespec times[2] = {before.st_atim, before.st_mtim};
		ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
	};
	const std::string changed = "change";
	const std::string beside = dir.Path("beside");
	VUNKSZHASH *hash = VUNKCSzHashAlloc(8);
	VUNKCSzHashSetValue(&hash, "value", "modified");
	const std::vector<Change> changes = {
		{"written in place", [&] { Overwrite(path, place, changed); }, changed},
		{"written in place, with the old time",
	         [&] {
			 Overwrite(path, place, changed);
			 restoreTimes(path);
		 },
	         changed},
		{"another file of the same size and time",
	         [&] {
			 kit::WriteFile(beside, other);
			 restoreTimes(beside);
			 fs::rename(beside, path);
		 },
	         changed},
		{"a link to another file",
	         [&] {
			 kit::WriteFile(beside, other);
			 fs::remove(path);
			 fs::create_symlink(beside, path);
		 },
	         changed},
		{"modified", [&] { EXPECT_EQ(VUNKCIFileModifySection(path.c_str(), "3", nullptr, hash, 1, 0), 1); },
	         "modified"},
		{"the section removed", [&] { EXPECT_EQ(VUNKCFileRemoveSection(path.c_str(), "3"), 1); },
	         Error(VUNKC_ERR_SECTION_MISSING)},
		{"a bad line at the end", [&] { kit::WriteFile(path, text + "word\n"); }, Error(VUNKC_ERR_SYNTAX)},
		{"truncated", [&] { fs::resize_file(path, 5); }, Error(VUNKC_ERR_SYNTAX)},
		{"removed", [&] { fs::remove(path); }, Error(VUNKC_ERR_FILE_MISSING)},
		{"a folder",
	         [&] {
			 fs::remove(path);
			 fs::create_directory(path);
		 },
	         Error(VUNKC_ERR_FILE_READ)},
	};
	for (const Change &change : changes) {
		SCOPED_TRACE(change.what);
		fs::remove_all(path);
		Write();
		HaveItKept();
		ASSERT_EQ(stat(path.c_str(), &before), 0);
		change.change();
		EXPECT_EQ(Get(3), change.value);
		EXPECT_EQ(Get(3), change.value);
		fs::remove_all(path);
	}
	VUNKCSzHashFree(hash);
}

TEST_F(KeptSections, NoChangeIsMissedHoweverSoonItComes)
{
	// Several changes of the same size share a stamp.
	const size_t place = text.find("[3]\nvalue=\"") + 11;
	for (int i = 0; i < 400; ++i) {
		Overwrite(path, place, Value(i));
		for (int again = 0; again < 3; ++again)
			ASSERT_EQ(Get(3), Value(i)) << i;
	}
}

TEST_F(KeptSections, WhatIsKeptIsWhatIsRead)
{
	using Pairs = std::vector<std::pair<std::string, std::string>>;
	const auto read = [&](const std::string &section) {
		VUNKSZHASH *hash = VUNKCSzHashAlloc(8);
		VUNKSZLIST *keys = VUNKCSzListAlloc(8);
		Pairs pairs = {{"", std::to_string(VUNKCFileGetSection(path.c_str(), section.c_str(), &hash))}};
		VUNKCSzHashEnumKey(hash, &keys);
		for (int i = 0; i < keys->nItem; ++i)
			pairs.emplace_back(VUNKCSzListGet(keys, i), VUNKCSzHashGetValue(hash, VUNKCSzListGet(keys, i)));
		VUNKCSzListFree(keys);
		VUNKCSzHashFree(hash);
		return pairs;
	};
	kit::WriteFile(path, "\xEF\xBB\xBF# head\r\n[twice]\r\nx=1\ny=2\r\n" + text +
	                             " [ bom ] \n\xEF\xBB\xBFx=1\n;\n" +
	                             "[twice]\nx = 3\nx=\"4\"\n[empty]\n[A]\n[a]\nz=z=z\n[last]\nq");
	kit::WriteFile(path, kit::ReadFile(path) + "=1");
	Settle();
	for (const char *const section :
	     {"twice", "bom", "empty", "A", "a", "0", "1999", "77", "missing", "", " bom", "[a]", "last"}) {
		SCOPED_TRACE(section);
		AskForNames(path);
		const Pairs wanted = read(section);
		AskForNames(path);
		read("0");
		read("1");
		EXPECT_EQ(read(section), wanted);
	}
	EXPECT_EQ(read("twice"), (Pairs{{"", "4"}, {"x", "4"}, {"y", "2"}}));
	EXPECT_EQ(read("bom"), (Pairs{{"", "1"}, {"\xEF\xBB\xBFx", "1"}}));
}

TEST_F(KeptSections, SaysThatASectionIsMissingInWhatIsKept)
{
	HaveItKept();
	EXPECT_EQ(::Get(path, "missing"), Error(VUNKC_ERR_SECTION_MISSING));
	EXPECT_EQ(VUNKCErrorGetFile(), path);
	EXPECT_EQ(VUNKCErrorGetLine(), 0);
}

TEST_F(KeptSections, TheMemoryIsGivenUp)
{
	const auto inUse = []() -> size_t {
		if (__sanitizer_get_current_allocated_bytes != nullptr)
			return __sanitizer_get_current_allocated_bytes();
		const struct mallinfo2 info = mallinfo2();
		return info.uordblks + info.hblkhd;
	};
	const std::string another = dir.Path("another");
	kit::WriteFile(another, "[a]\n");
	VUNKSZHASH *const hash = VUNKCSzHashAlloc(8);
	const size_t before = inUse();
	const auto isKept = [&] { return inUse() > before + text.size() / 2; };

	Settle();
	EXPECT_EQ(Get(0), Value(0));
	EXPECT_FALSE(isKept()) << "after one section only";

	HaveItKept();
	EXPECT_TRUE(isKept());
	EXPECT_EQ(Get(kSections - 1), Value(kSections - 1));
	EXPECT_FALSE(isKept()) << "after the last section";

	const std::vector<std::pair<const char *, std::function<void()>>> ends = {
		{"another file", [&] { ::Get(another, "a"); }},
		{"a missing section", [&] { ::Get(path, "missing"); }},
		{"an addition", [&] { VUNKCFileAddSection(path.c_str(), "0", hash); }},
		{"a removal", [&] { VUNKCFileRemoveSection(path.c_str(), "missing"); }},
		{"a change", [&] { VUNKCIFileModifySection(path.c_str(), "missing", nullptr, hash, 1, 0); }},
		{"the names", [&] { AskForNames(another); }},
	};
	for (const auto &[what, end] : ends) {
		HaveItKept();
		EXPECT_TRUE(isKept()) << what;
		end();
		EXPECT_FALSE(isKept()) << what;
	}
	VUNKCSzHashFree(hash);
}

TEST_F(KeptSections, ThreadsDoNotGetInEachOthersWay)
{
	HaveItKept();
	std::atomic<int> wrong = 0;
	const auto readAll = [&] {
		for (int i = 0; i < kSections; i += 10)
			wrong += Get(i) != Value(i);
	};
	std::vector<std::thread> threads;
	for (int i = 0; i < 4; ++i)
		threads.emplace_back(readAll);
	for (std::thread &thread : threads)
		thread.join();
	EXPECT_EQ(wrong, 0);
}

TEST_F(KeptSections, AChildHasWhatIsKept)
{
	HaveItKept();
	const pid_t child = fork();
	ASSERT_GE(child, 0);
	if (child == 0)
		_exit(Get(3) == Value(3) && Get(kSections - 1) == Value(kSections - 1) ? 0 : 1);
	int status = -1;
	EXPECT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	EXPECT_EQ(Get(4), Value(4));
}

TEST_F(KeptSections, LeavesNoDescriptor)
{
	const std::set<int> before = kit::OpenDescriptors();
	HaveItKept();
	EXPECT_EQ(kit::OpenDescriptors(), before);
}

} // namespace
