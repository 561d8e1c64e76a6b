#include "btrfs_metadata_cache/process_age.h"

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/lab.h"
#include "kit/processes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace {

class ProcessAge : public kit::LabTest {
protected:
	ProcessAge() { kit::WriteFile(file, "text"); }

	/// Whether the process may have written a file that was last written this many seconds ago.
	bool MayHave(pid_t pid, long seconds)
	{
		timespec now = {};
		clock_gettime(CLOCK_REALTIME, &now);
		now.tv_sec -= seconds;
		const timespec times[] = {now, now};
		EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
		return MayHaveWritten(pid, file.c_str());
	}

	static constexpr long long kSecond = 1'000'000'000;

	kit::TempDir dir;
	const std::string file = dir.Path("file");
};

TEST_F(ProcessAge, IsThatOfWhoeverWritesNow)
{
	EXPECT_TRUE(MayHaveWritten(getpid(), file.c_str()));
	const kit::ChildProcess child([&] { kit::WriteFile(file, "child's"); });
	EXPECT_TRUE(MayHaveWritten(child.Pid(), file.c_str()));
}

TEST_F(ProcessAge, DoesNotGoBackBeyondTheStart)
{
	const kit::ChildProcess child;
	EXPECT_TRUE(MayHave(child.Pid(), 0));
	// A machine may be slow, but not for half a minute.
	EXPECT_FALSE(MayHave(child.Pid(), 30));
	EXPECT_FALSE(MayHave(child.Pid(), 1'000'000));
	EXPECT_FALSE(MayHave(child.Pid(), 1'000'000'000));
}

TEST_F(ProcessAge, ReachesIntoTheFuture)
{
	EXPECT_TRUE(MayHave(getpid(), -30)); // somebody has set the clock back
	EXPECT_TRUE(MayHave(getpid(), -1'000'000));
}

TEST_F(ProcessAge, IsExactToASecond)
{
	const auto now = [] {
		timespec time = {};
		clock_gettime(CLOCK_REALTIME, &time);
		return time;
	};
	const auto writtenBefore = [&](timespec time, long milliseconds) {
		const long long nanoseconds = time.tv_sec * kSecond + time.tv_nsec - milliseconds * 1'000'000;
		time = {static_cast<time_t>(nanoseconds / kSecond), static_cast<long>(nanoseconds % kSecond)};
		const timespec times[] = {time, time};
		EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
	};
	const timespec before = now();
	const kit::ChildProcess child;
	const timespec after = now();
	writtenBefore(after, 900);
	EXPECT_TRUE(MayHaveWritten(child.Pid(), file.c_str()));
	writtenBefore(before, 1200);
	// A look that is held up takes the process for older than it is.
	bool mayHave = true;
	for (int look = 0; look < 100 && mayHave; ++look)
		mayHave = MayHaveWritten(child.Pid(), file.c_str());
	EXPECT_FALSE(mayHave);
}

TEST_F(ProcessAge, IsFoundWhateverTheProcessIsCalled)
{
	for (const char *const name : {") Z 1 (a) b", "((", "a b c d e f", "))))"}) {
		SCOPED_TRACE(name);
		const kit::ChildProcess child([&] { prctl(PR_SET_NAME, name); });
		EXPECT_TRUE(MayHave(child.Pid(), 0));
		EXPECT_FALSE(MayHave(child.Pid(), 30));
	}
}

TEST_F(ProcessAge, IsToldOfZombiesToo)
{
	const kit::ChildProcess child;
	child.Kill();
	EXPECT_TRUE(MayHave(child.Pid(), 0));
	EXPECT_FALSE(MayHave(child.Pid(), 30));
}

TEST_F(ProcessAge, MayBeAnythingWhereItCannotBeTold)
{
	for (const pid_t pid : {0, -1, INT_MAX, INT_MIN})
		EXPECT_TRUE(MayHave(pid, 1000)) << pid;
	const kit::ChildProcess child;
	EXPECT_FALSE(MayHave(child.Pid(), 30));
	EXPECT_TRUE(MayHaveWritten(child.Pid(), dir.Path("missing").c_str()));
	{
		const kit::PathFault fault("open", "/proc/" + std::to_string(child.Pid()) + "/stat", EMFILE);
		EXPECT_TRUE(MayHaveWritten(child.Pid(), file.c_str()));
		EXPECT_EQ(fault.Calls(), 1);
	}
	const kit::PathFault fault("stat", file, EIO);
	EXPECT_TRUE(MayHaveWritten(child.Pid(), file.c_str()));
	EXPECT_EQ(fault.Calls(), 1);
}

} // namespace
