#include "kit/processes.h"

#include "kit/faults.h"
#include "kit/journal.h"
#include "kit/nth_call.h"
#include "kit/real.h"
#include "kit/timeline.h"

#include <vunkcore/vunkcore.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

kit::Processes *current = nullptr;

void Note(const std::string &line)
{
	current->lines.push_back(line);
	kit::Timeline::Note(line);
}

/// Whether a function is to fail now.
bool Strikes(const char *function)
{
	if (current == nullptr || !kit::Strikes(kit::Calls::Platform, function))
		return false;
	VUNKCErrSetEx(kit::kFaultCode, "fault", 1);
	return true;
}

int Send(const char *szPath, int iSignal)
{
	if (current->isAlive)
		return 0;
	static const auto real = kit::Real<decltype(VUNKCProcSignalByPidFile)>("VUNKCProcSignalByPidFile");
	return real(szPath, iSignal);
}

} // namespace

extern "C" {

pid_t VUNKCProcForkChildNoWait()
{
	static const auto real = kit::Real<decltype(VUNKCProcForkChildNoWait)>("VUNKCProcForkChildNoWait");
	if (current == nullptr)
		return real();
	Note("fork");
	if (Strikes("VUNKCProcForkChildNoWait"))
		return -1;
	return current->Fork();
}

int VUNKCProcAlive(pid_t pid)
{
	static const auto real = kit::Real<decltype(VUNKCProcAlive)>("VUNKCProcAlive");
	// It sets no error.
	if (current != nullptr && kit::Strikes(kit::Calls::Platform, "VUNKCProcAlive"))
		return 0;
	return real(pid);
}

int VUNKCProcAliveByPidFile(const char *szPath)
{
	static const auto real = kit::Real<decltype(VUNKCProcAliveByPidFile)>("VUNKCProcAliveByPidFile");
	if (current == nullptr)
		return real(szPath);
	Note(std::string("alive? ") + szPath);
	if (Strikes("VUNKCProcAliveByPidFile"))
		return -1;
	return current->isAlive ? static_cast<int>(current->isAlive()) : real(szPath);
}

int VUNKCProcSignalByPidFile(const char *szPath, int iSignal)
{
	static const auto real = kit::Real<decltype(VUNKCProcSignalByPidFile)>("VUNKCProcSignalByPidFile");
	if (current == nullptr)
		return real(szPath, iSignal);
	const int result = Strikes("VUNKCProcSignalByPidFile") ? -1 : Send(szPath, iSignal);
	Note("signal " + std::to_string(iSignal) + " " + szPath + (result == 0 ? "" : ": failed"));
	return result;
}

unsigned sleep(unsigned seconds)
{
	static const auto real = kit::Real<unsigned(unsigned)>("sleep");
	if (current == nullptr)
		return real(seconds);
	Note("sleep " + std::to_string(seconds));
	const kit::Uncounted uncounted;
	return current->sleep ? current->sleep(seconds) : 0;
}

} // extern "C"

namespace kit {

Processes::Processes()
{
	if (current != nullptr)
		throw std::logic_error("one at a time");
	current = this;
}

Processes::~Processes()
{
	current = nullptr;
}

pid_t Processes::Fork()
{
	static const auto real = Real<decltype(VUNKCProcForkChildNoWait)>("VUNKCProcForkChildNoWait");
	const Uncounted uncounted;
	const pid_t forked = forksForReal ? real() : fork();
	if (forked != 0)
		child = forked;
	return forked;
}

int Processes::WaitForChild()
{
	const Uncounted uncounted;
	int status = -1;
	// In the lab this process is init, which adopts a child that nobody waits for.
	if (child > 0 && waitpid(std::exchange(child, -1), &status, 0) < 0)
		throw std::logic_error("the child is nobody's");
	CollectLinesOfChildren();
	return status;
}

ChildProcess::ChildProcess(const std::function<void()> &body)
{
	const Uncounted uncounted;
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0 || (pid = fork()) < 0)
		throw std::runtime_error("no child can be made");
	if (pid == 0) {
		body();
		close(ends[0]);
		close(ends[1]);
		for (;;)
			pause();
	}
	close(ends[1]);
	char byte;
	if (read(ends[0], &byte, 1) != 0)
		abort();
	close(ends[0]);
}

ChildProcess::~ChildProcess()
{
	const Uncounted uncounted;
	if (signal != 0)
		return;
	kill(pid, SIGKILL);
	waitpid(pid, nullptr, 0);
}

void ChildProcess::WaitForEnd() const
{
	const Uncounted uncounted;
	constexpr int kPatience = 30'000;
	pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
	const bool ends = ended.fd >= 0 && poll(&ended, 1, kPatience) == 1;
	close(ended.fd);
	if (!ends)
		throw std::runtime_error("the child does not end");
}

void ChildProcess::Kill() const
{
	const Uncounted uncounted;
	kill(pid, SIGKILL);
	WaitForEnd();
}

int ChildProcess::EndedBy()
{
	const Uncounted uncounted;
	int status = 0;
	if (signal == 0 && waitpid(pid, &status, WNOHANG) == pid)
		signal = WTERMSIG(status);
	return signal;
}

} // namespace kit
