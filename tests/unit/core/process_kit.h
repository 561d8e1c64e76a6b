#ifndef TESTS_UNIT_CORE_PROCESS_KIT_H
#define TESTS_UNIT_CORE_PROCESS_KIT_H

// Processes that the tests of this folder need around the code they test.

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

/// Forks, runs the body in the child, and returns the wait status. The body returns true for "as expected".
template <class Body>
int StatusOfChild(Body &&body)
{
	const pid_t child = fork();
	if (child == 0) {
		bool good = false;
		try {
			good = body();
		} catch (...) {
		}
		_exit(good ? 0 : 1);
	}
	int status = -1;
	waitpid(child, &status, 0);
	return status;
}

/// Holds one end of a pipe that has a name, so that processes without common descriptors can meet.
class Meeting {
public:
	explicit Meeting(std::string pipePath) : path(std::move(pipePath))
	{
		if (mkfifo(path.c_str(), 0666) == 0)
			fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
	}
	~Meeting() { close(fd); }
	Meeting(const Meeting &) = delete;
	Meeting &operator=(const Meeting &) = delete;

	const std::string &Path() const { return path; }

	/// The next line that somebody writes; "nothing" when none comes for half a minute.
	std::string Line() const
	{
		std::string line;
		for (char c;;) {
			pollfd ready = {fd, POLLIN, 0};
			if (poll(&ready, 1, 30'000) != 1 || read(fd, &c, 1) != 1)
				return "nothing";
			if (c == '\n')
				return line;
			line += c;
		}
	}

	/// Writes a line, from any process.
	static bool Say(const std::string &path, const std::string &line)
	{
		const int out = open(path.c_str(), O_WRONLY);
		const std::string text = line + "\n";
		const bool said = write(out, text.data(), text.size()) == static_cast<ssize_t>(text.size());
		return close(out) == 0 && said;
	}

private:
	std::string path;
	int fd = -1;
};

/// Waits until a process has ended; false when it does not for half a minute.
inline bool Ends(pid_t pid)
{
	const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
	if (process < 0)
		return errno == ESRCH;
	pollfd ended = {process, POLLIN, 0};
	const bool ends = poll(&ended, 1, 30'000) == 1;
	close(process);
	return ends;
}

/// Makes a system call fail with an errno, for the calling process and for good.
inline bool Forbid(long number, int error)
{
	sock_filter program[] = {
		BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
		BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
		BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
		BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
	};
	const sock_fprog filter = {sizeof(program) / sizeof(program[0]), program};
	return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

/// Where the test program is the init of its namespace, it adopts what others leave behind.
class ProcessTest : public testing::Test {
protected:
	void TearDown() override
	{
		while (waitpid(-1, nullptr, __WALL) > 0)
			continue;
		EXPECT_EQ(errno, ECHILD);
	}
};

/// A child that does nothing until it is killed, at the latest when this object goes.
class Bystander {
public:
	Bystander() : pid(fork())
	{
		if (pid == 0)
			for (;;)
				pause();
	}
	~Bystander() { Kill(); }
	Bystander(const Bystander &) = delete;
	Bystander &operator=(const Bystander &) = delete;

	pid_t Pid() const { return pid; }
	bool IsThere() const { return waitpid(pid, nullptr, WNOHANG) == 0; }
	/// Kills it, and leaves the zombie.
	bool BecomeZombie() const
	{
		siginfo_t info;
		return kill(pid, SIGKILL) == 0 && waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0;
	}
	/// Waits for its end, and leaves the zombie.
	bool HasEndedBy(int signal) const
	{
		siginfo_t info;
		return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0 &&
		       info.si_code == CLD_KILLED && info.si_status == signal;
	}
	void Kill()
	{
		if (pid <= 0)
			return;
		kill(pid, SIGKILL);
		waitpid(pid, nullptr, 0);
		pid = -1;
	}

private:
	pid_t pid;
};

#endif
