#include "kit/files.h"
#include "process_kit.h"

#include <vunkcore/error.h>
#include <vunkcore/pid_file.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Field 22 of /proc/<pid>/stat, for a process whose name holds no blank.
unsigned long long StartTime(pid_t pid)
{
	std::istringstream stat(kit::ReadFile("/proc/" + std::to_string(pid) + "/stat"));
	std::string field;
	for (int i = 0; i < 22; ++i)
		stat >> field;
	return std::stoull(field);
}

std::string Line(pid_t pid, unsigned long long startTime)
{
	return std::to_string(pid) + " " + std::to_string(startTime) + "\n";
}

class PidFile : public ProcessTest {
protected:
	PidFile() { VUNKCErrSetEx(0x1234, "before", 5); }

	/// Whether both functions say that the file names nobody; signalling with this code.
	testing::AssertionResult NamesNobody(int code = VUNKC_ERR_PID_FILE) const
	{
		VUNKCErrSetEx(0x1234, "before", 5);
		if (const int alive = VUNKCProcAliveByPidFile(path.c_str()); alive != 0 || VUNKCErrGet() != 0x1234)
			return testing::AssertionFailure() << "alive: " << alive << ", error " << VUNKCErrGet();
		if (VUNKCProcSignalByPidFile(path.c_str(), SIGKILL) != -1)
			return testing::AssertionFailure() << "somebody was signalled";
		if (VUNKCErrGet() != code)
			return testing::AssertionFailure() << std::hex << "error " << VUNKCErrGet();
		return testing::AssertionSuccess();
	}
	/// Whether the file cannot be read, with this code.
	testing::AssertionResult IsUnreadable(int code) const
	{
		for (auto call : {+[](const char *file) { return VUNKCProcAliveByPidFile(file); },
		                  +[](const char *file) { return VUNKCProcSignalByPidFile(file, SIGKILL); }}) {
			VUNKCErrSetEx(0, nullptr, 0);
			if (call(path.c_str()) != -1 || VUNKCErrGet() != code || VUNKCErrorGetFile() != path ||
			    VUNKCErrorGetLine() != 0)
				return testing::AssertionFailure()
				       << std::hex << VUNKCErrGet() << " " << VUNKCErrorGetFile();
		}
		return testing::AssertionSuccess();
	}

	kit::TempDir dir;
	std::string path = dir.Path("some.pid");
};

TEST_F(PidFile, NamesTheCallingProcess)
{
	ASSERT_EQ(VUNKCProcPidFileCreate(path.c_str()), 0);
	EXPECT_EQ(kit::ReadFile(path), Line(getpid(), StartTime(getpid())));
	EXPECT_EQ(VUNKCProcAliveByPidFile(path.c_str()), 1);
	EXPECT_EQ(VUNKCProcSignalByPidFile(path.c_str(), 0), 0);
	EXPECT_EQ(VUNKCErrGet(), 0x1234);
}

TEST_F(PidFile, IsReplacedAsAWhole)
{
	kit::WriteFile(path, std::string(1000, 'x'));
	ASSERT_EQ(VUNKCProcPidFileCreate(path.c_str()), 0);
	EXPECT_EQ(kit::ReadFile(path), Line(getpid(), StartTime(getpid())));
	EXPECT_EQ(kit::Names(dir.Path()), std::set<std::string>{"some.pid"});
}

TEST_F(PidFile, NamesAProcessWhoseProgramHasAnOddName)
{
	EXPECT_EQ(StatusOfChild([&] {
			  return prctl(PR_SET_NAME, ") Z 1 (a) b") == 0 && VUNKCProcPidFileCreate(path.c_str()) == 0 &&
		                 VUNKCProcAliveByPidFile(path.c_str()) == 1;
		  }),
	          0);
}

TEST_F(PidFile, CannotBeMadeInAMissingFolder)
{
	EXPECT_EQ(VUNKCProcPidFileCreate(dir.Path("missing/pid").c_str()), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_FILE_WRITE);
}

TEST_F(PidFile, SignalsTheProcessThatItNames)
{
	Bystander named;
	Bystander other;
	kit::WriteFile(path, Line(named.Pid(), StartTime(named.Pid())));
	EXPECT_EQ(VUNKCProcAliveByPidFile(path.c_str()), 1);
	EXPECT_EQ(VUNKCProcSignalByPidFile(path.c_str(), SIGTERM), 0);
	int status = 0;
	EXPECT_EQ(waitpid(named.Pid(), &status, 0), named.Pid());
	EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
	EXPECT_TRUE(other.IsThere());
	EXPECT_TRUE(NamesNobody(VUNKC_ERR_NO_PROCESS));
}

TEST_F(PidFile, AnIdThatBelongsToAnotherProcessNowNamesNobody)
{
	Bystander other;
	const unsigned long long startTime = StartTime(other.Pid());
	for (unsigned long long wrong : {startTime + 1, startTime - 1, 0ULL, ~0ULL}) {
		kit::WriteFile(path, Line(other.Pid(), wrong));
		EXPECT_TRUE(NamesNobody(VUNKC_ERR_NO_PROCESS)) << wrong;
	}
	EXPECT_TRUE(other.IsThere());
}

TEST_F(PidFile, AZombieIsNobody)
{
	Bystander named;
	kit::WriteFile(path, Line(named.Pid(), StartTime(named.Pid())));
	ASSERT_TRUE(named.BecomeZombie());
	EXPECT_TRUE(NamesNobody(VUNKC_ERR_NO_PROCESS));
}

TEST_F(PidFile, TextThatIsNotExactlyItsLineNamesNobody)
{
	Bystander other;
	const std::string pid = std::to_string(other.Pid());
	const std::string start = std::to_string(StartTime(other.Pid()));
	const std::string texts[] = {
		"",
		"\n",
		" ",
		"0\n",
		"0 " + start + "\n",
		"-1 " + start + "\n",
		"-" + pid + " " + start + "\n",
		pid,
		pid + "\n",
		pid + " ",
		pid + " \n",
		pid + " " + start,
		pid + " " + start + " \n",
		pid + " " + start + "\n\n",
		pid + " " + start + "\nx",
		pid + "  " + start + "\n",
		pid + "\t" + start + "\n",
		" " + pid + " " + start + "\n",
		"+" + pid + " " + start + "\n",
		"0" + pid + " " + start + "\n",
		pid + " 0" + start + "\n",
		pid + " +" + start + "\n",
		pid + " -" + start + "\n",
		pid + " " + start + "\r\n",
		"garbage",
		"garbage garbage\n",
		pid + ".0 " + start + "\n",
		"0x1 " + start + "\n",
		"4294967297 " + start + "\n",
		"2147483648 " + start + "\n",
		std::to_string((1ULL << 32) + static_cast<unsigned long long>(other.Pid())) + " " + start + "\n",
		"99999999999999999999999 " + start + "\n",
		pid + " 99999999999999999999999\n",
		std::string("\0", 1) + pid + " " + start + "\n",
		pid + " " + start + "\n" + std::string("\0", 1),
		std::string(100'000, '1'),
		pid + " " + start + "\n" + std::string(100'000, '\n'),
		std::string(100'000, '\0'),
	};
	for (const std::string &text : texts) {
		kit::WriteFile(path, text);
		EXPECT_TRUE(NamesNobody()) << text.substr(0, 100);
	}
	EXPECT_TRUE(other.IsThere());
}

TEST_F(PidFile, AnIdThatNobodyHasNamesNobody)
{
	kit::WriteFile(path, Line(0x7FFFFFFF, 1));
	EXPECT_TRUE(NamesNobody(VUNKC_ERR_NO_PROCESS));
}

TEST_F(PidFile, CannotBeReadWhenItIsMissing)
{
	EXPECT_TRUE(IsUnreadable(VUNKC_ERR_FILE_MISSING));
}

TEST_F(PidFile, IsNotReadThroughALink)
{
	Bystander other;
	kit::WriteFile(dir.Path("target"), Line(other.Pid(), StartTime(other.Pid())));
	ASSERT_EQ(symlink("target", path.c_str()), 0);
	EXPECT_TRUE(IsUnreadable(VUNKC_ERR_FILE_OPEN));
	EXPECT_TRUE(other.IsThere());
}

TEST_F(PidFile, CannotBeReadWhenItIsNoRegularFile)
{
	ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
	EXPECT_TRUE(IsUnreadable(VUNKC_ERR_FILE_OPEN));
	ASSERT_EQ(unlink(path.c_str()), 0);
	ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
	EXPECT_TRUE(IsUnreadable(VUNKC_ERR_FILE_OPEN));
}

TEST_F(PidFile, ASignalThatDoesNotExistIsAFailure)
{
	Bystander named;
	kit::WriteFile(path, Line(named.Pid(), StartTime(named.Pid())));
	EXPECT_EQ(VUNKCProcSignalByPidFile(path.c_str(), 1000), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_SIGNAL);
	EXPECT_EQ(VUNKCProcSignalByPidFile(path.c_str(), -1), -1);
	EXPECT_TRUE(named.IsThere());
}

TEST_F(PidFile, AProcessOfSomebodyElseIsAliveButNotSignalled)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "takes root, to become somebody else";
	Bystander named;
	kit::WriteFile(path, Line(named.Pid(), StartTime(named.Pid())));
	ASSERT_EQ(chmod(dir.Path().c_str(), 0755), 0);
	ASSERT_EQ(chmod(path.c_str(), 0644), 0);
	EXPECT_EQ(StatusOfChild([&] {
			  return setgid(65534) == 0 && setuid(65534) == 0 &&
		                 VUNKCProcAliveByPidFile(path.c_str()) == 1 &&
		                 VUNKCProcSignalByPidFile(path.c_str(), SIGKILL) == -1 &&
		                 VUNKCErrGet() == VUNKC_ERR_SIGNAL;
		  }),
	          0);
	EXPECT_TRUE(named.IsThere());
}

TEST_F(PidFile, FindsItsProcessWithoutPidfds)
{
	for (const int error : {ENOSYS, EPERM}) {
		Bystander named;
		Bystander other;
		kit::WriteFile(path, Line(named.Pid(), StartTime(named.Pid())));
		EXPECT_EQ(StatusOfChild([&] {
				  return Forbid(SYS_pidfd_open, error) && VUNKCProcAliveByPidFile(path.c_str()) == 1 &&
			                 VUNKCProcSignalByPidFile(path.c_str(), 1000) == -1 &&
			                 VUNKCErrGet() == VUNKC_ERR_SIGNAL &&
			                 VUNKCProcSignalByPidFile(path.c_str(), SIGTERM) == 0;
			  }),
		          0)
			<< error;
		ASSERT_TRUE(named.HasEndedBy(SIGTERM)) << error;
		const auto namesNobody = [&] {
			return StatusOfChild([&] {
				       return Forbid(SYS_pidfd_open, error) && NamesNobody(VUNKC_ERR_NO_PROCESS);
			       }) == 0;
		};
		EXPECT_TRUE(namesNobody()) << error << ": a zombie";
		named.Kill();
		EXPECT_TRUE(namesNobody()) << error << ": nobody";
		kit::WriteFile(path, Line(other.Pid(), StartTime(other.Pid()) + 1));
		EXPECT_TRUE(namesNobody()) << error << ": another process";
		EXPECT_TRUE(other.IsThere());
	}
}

TEST_F(PidFile, IsAFailureToSignalWhereThereIsNoRoomForAPidfd)
{
	Bystander named;
	kit::WriteFile(path, Line(named.Pid(), StartTime(named.Pid())));
	EXPECT_EQ(StatusOfChild([&] {
			  return Forbid(SYS_pidfd_open, EMFILE) && VUNKCProcAliveByPidFile(path.c_str()) == 0 &&
		                 VUNKCProcSignalByPidFile(path.c_str(), SIGTERM) == -1 &&
		                 VUNKCErrGet() == VUNKC_ERR_SIGNAL;
		  }),
	          0);
	EXPECT_TRUE(named.IsThere());
}

TEST_F(PidFile, LeavesNoDescriptorOpen)
{
	const auto before = kit::OpenDescriptors();
	Bystander named;
	kit::WriteFile(path, Line(named.Pid(), StartTime(named.Pid())));
	EXPECT_EQ(VUNKCProcAliveByPidFile(path.c_str()), 1);
	EXPECT_EQ(VUNKCProcSignalByPidFile(path.c_str(), 0), 0);
	kit::WriteFile(path, Line(named.Pid(), 1));
	EXPECT_TRUE(NamesNobody(VUNKC_ERR_NO_PROCESS));
	EXPECT_EQ(VUNKCProcPidFileCreate(path.c_str()), 0);
	EXPECT_EQ(kit::OpenDescriptors(), before);
}

TEST_F(PidFile, RefusesNull)
{
	EXPECT_EQ(VUNKCProcPidFileCreate(nullptr), -1);
	EXPECT_EQ(VUNKCProcSignalByPidFile(nullptr, SIGKILL), -1);
	EXPECT_EQ(VUNKCProcAliveByPidFile(nullptr), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
}

} // namespace
