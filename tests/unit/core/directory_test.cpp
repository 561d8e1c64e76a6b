#include "kit/files.h"

#include <vunkcore/error.h>
#include <vunkcore/file.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

class Directory : public testing::Test {
protected:
	Directory() { VUNKCErrSetEx(0, nullptr, 0); }
	~Directory() override { VUNKCSzListFree(list); }

	int Enumerate(const std::string &path)
	{
		return VUNKCFileEnumDir(path.c_str(), nullptr, &list, VUNKC_ENUM_REGULAR);
	}
	std::vector<std::string> Listed() const
	{
		std::vector<std::string> names;
		for (int i = 0; i < list->nItem; ++i)
			names.emplace_back(VUNKCSzListGet(list, i));
		return names;
	}

	kit::TempDir dir;
	VUNKSZLIST *list = VUNKCSzListAlloc(16);
};

using Strings = std::vector<std::string>;

TEST_F(Directory, ListsRegularFilesInAscendingByteOrder)
{
	for (const char *name : {"b", "a10", "a2", "Z", "\xC3\xA4", "a"})
		kit::WriteFile(dir.Path(name), "");
	EXPECT_EQ(Enumerate(dir.Path()), 6);
	EXPECT_EQ(Listed(), (Strings{"Z", "a", "a10", "a2", "b", "\xC3\xA4"}));
}

TEST_F(Directory, LeavesOutWhatIsNoRegularFileAndDotNames)
{
	kit::WriteFile(dir.Path("file"), "");
	kit::WriteFile(dir.Path(".hidden"), "");
	kit::WriteFile(dir.Path(".file.new"), "");
	kit::WriteFile(dir.Path("folder/inside"), "");
	ASSERT_EQ(mkfifo(dir.Path("pipe").c_str(), 0600), 0);
	sockaddr_un address = {AF_UNIX, ""};
	dir.Path("socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
	close(fd);
	EXPECT_EQ(Enumerate(dir.Path()), 1);
	EXPECT_EQ(Listed(), Strings{"file"});
}

TEST_F(Directory, FollowsLinksAndLeavesOutDanglingOnes)
{
	kit::WriteFile(dir.Path("folder/inside"), "");
	for (auto [target, link] : {std::pair{"folder/inside", "to-file"},
	                            {"to-file", "to-link"},
	                            {"folder", "to-folder"},
	                            {"nowhere", "dangling"},
	                            {"loop", "loop"},
	                            {"to-file/below", "through-file"}})
		ASSERT_EQ(symlink(target, dir.Path(link).c_str()), 0);
	EXPECT_EQ(Enumerate(dir.Path()), 2);
	EXPECT_EQ(Listed(), (Strings{"to-file", "to-link"}));
}

TEST_F(Directory, AppendsToWhatTheListHolds)
{
	VUNKCSzListPush(&list, "zz");
	kit::WriteFile(dir.Path("a"), "");
	EXPECT_EQ(Enumerate(dir.Path()), 1);
	EXPECT_EQ(Listed(), (Strings{"zz", "a"}));
}

TEST_F(Directory, AnEmptyOneGivesZeroAndLeavesTheErrorAsItWas)
{
	VUNKCErrSetEx(0x1234, "before", 5);
	EXPECT_EQ(Enumerate(dir.Path()), 0);
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
}

TEST_F(Directory, ManyFilesAreAllListedAndNoDescriptorStaysOpen)
{
	for (int i = 0; i < 3000; ++i)
		kit::WriteFile(dir.Path("file" + std::to_string(i)), "");
	const auto before = kit::OpenDescriptors();
	EXPECT_EQ(Enumerate(dir.Path()), 3000);
	EXPECT_EQ(kit::OpenDescriptors(), before);
	const Strings listed = Listed();
	EXPECT_TRUE(std::is_sorted(listed.begin(), listed.end()));
}

TEST_F(Directory, FailsForAMissingOne)
{
	VUNKCSzListPush(&list, "kept");
	EXPECT_EQ(Enumerate(dir.Path("missing")), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_MISSING);
	EXPECT_EQ(VUNKCErrorGetFile(), dir.Path("missing"));
	EXPECT_EQ(VUNKCErrorGetLine(), 0);
	EXPECT_EQ(Listed(), Strings{"kept"});
}

TEST_F(Directory, FailsForAFile)
{
	kit::WriteFile(dir.Path("file"), "");
	EXPECT_EQ(Enumerate(dir.Path("file")), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_MISSING);
}

TEST_F(Directory, FailsForALinkLoop)
{
	ASSERT_EQ(symlink("loop", dir.Path("loop").c_str()), 0);
	EXPECT_EQ(Enumerate(dir.Path("loop")), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_OPEN);
	EXPECT_EQ(VUNKCErrorGetFile(), dir.Path("loop"));
}

TEST_F(Directory, RefusesWrongArguments)
{
	const std::string path = dir.Path();
	VUNKSZLIST *none = nullptr;
	EXPECT_EQ(VUNKCFileEnumDir(nullptr, nullptr, &list, VUNKC_ENUM_REGULAR), -1);
	EXPECT_EQ(VUNKCFileEnumDir(path.c_str(), "*", &list, VUNKC_ENUM_REGULAR), -1);
	EXPECT_EQ(VUNKCFileEnumDir(path.c_str(), nullptr, nullptr, VUNKC_ENUM_REGULAR), -1);
	EXPECT_EQ(VUNKCFileEnumDir(path.c_str(), nullptr, &none, VUNKC_ENUM_REGULAR), -1);
	EXPECT_EQ(VUNKCFileEnumDir(path.c_str(), nullptr, &list, 0), -1);
	EXPECT_EQ(VUNKCFileEnumDir(path.c_str(), nullptr, &list, VUNKC_ENUM_REGULAR | 1), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
}

TEST(FileExist, IsTrueForAnythingALinkLeadsTo)
{
	const kit::TempDir dir;
	kit::WriteFile(dir.Path("file"), "");
	ASSERT_EQ(symlink("file", dir.Path("link").c_str()), 0);
	ASSERT_EQ(symlink("nowhere", dir.Path("dangling").c_str()), 0);
	VUNKCErrSetEx(0x1234, "before", 5);
	EXPECT_EQ(VUNKCFileExist(dir.Path("file").c_str()), 1);
	EXPECT_EQ(VUNKCFileExist(dir.Path("link").c_str()), 1);
	EXPECT_EQ(VUNKCFileExist(dir.Path().c_str()), 1);
	EXPECT_EQ(VUNKCFileExist("/dev/null"), 1);
	EXPECT_EQ(VUNKCFileExist(dir.Path("dangling").c_str()), 0);
	EXPECT_EQ(VUNKCFileExist(dir.Path("missing").c_str()), 0);
	EXPECT_EQ(VUNKCFileExist(dir.Path("file/below").c_str()), 0);
	EXPECT_EQ(VUNKCFileExist(""), 0);
	EXPECT_EQ(VUNKCErrGet(), 0x1234) << "not being there is no failure";
	EXPECT_EQ(VUNKCFileExist(nullptr), 0);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
}

TEST(Write, WritesTheWholeBuffer)
{
	const kit::TempDir dir;
	const int fd = open(dir.Path("file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
	VUNKCErrSetEx(0x1234, "before", 5);
	EXPECT_EQ(VUNKCWrite(fd, "a\0b", 3), 3);
	EXPECT_EQ(VUNKCWrite(fd, "", 0), 0);
	EXPECT_EQ(VUNKCWrite(fd, nullptr, 0), 0);
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
	close(fd);
	EXPECT_EQ(kit::ReadFile(dir.Path("file")), std::string("a\0b", 3));
}

TEST(Write, CarriesOnAfterSignalsAndShortWrites)
{
	int ends[2];
	ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
	std::string text(1 << 20, '\0');
	for (size_t i = 0; i < text.size(); ++i)
		text[i] = static_cast<char>(i * 31 >> 3);
	struct sigaction action = {};
	struct sigaction before;
	action.sa_handler = [](int) {
	}; // without SA_RESTART: the write is cut short, or interrupted before its first byte
	sigaction(SIGUSR1, &action, &before);
	const pthread_t writer = pthread_self();
	std::string received;
	std::thread reader([&] {
		sigset_t usr1;
		sigemptyset(&usr1);
		sigaddset(&usr1, SIGUSR1);
		pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
		char buffer[10000];
		while (received.size() < text.size()) {
			pthread_kill(writer, SIGUSR1);
			const ssize_t got = read(ends[0], buffer, sizeof(buffer));
			if (got <= 0)
				break;
			received.append(buffer, static_cast<size_t>(got));
		}
	});
	EXPECT_EQ(VUNKCWrite(ends[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
	close(ends[1]);
	reader.join();
	close(ends[0]);
	sigaction(SIGUSR1, &before, nullptr);
	EXPECT_TRUE(received == text);
}

TEST(Write, FailsWithErrnoSet)
{
	const int readOnly = open("/dev/null", O_RDONLY | O_CLOEXEC);
	errno = 0;
	EXPECT_EQ(VUNKCWrite(readOnly, "x", 1), -1);
	EXPECT_EQ(errno, EBADF);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_WRITE);
	close(readOnly);
	EXPECT_EQ(VUNKCWrite(-1, "", 0), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_WRITE);
	const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
	EXPECT_EQ(VUNKCWrite(full, "x", 1), -1);
	EXPECT_EQ(errno, ENOSPC);
	close(full);
}

TEST(Write, RefusesANullBufferAndSizesBeyondItsResult)
{
	const int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
	EXPECT_EQ(VUNKCWrite(fd, nullptr, 1), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	EXPECT_EQ(VUNKCWrite(fd, "x", static_cast<size_t>(-1)), -1);
	EXPECT_EQ(errno, EINVAL);
	close(fd);
}

} // namespace
