#include "cache_process.h"

#include "cache_error_text.h"
#include "error_text.h"
#include "failure.h"

#include "support/error_codes.h"

#include <vunkcore/error.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr int kReport = STDERR_FILENO + 1;
constexpr size_t kMostReported = 8192; // a pipe takes as much without a reader

enum ExitStatus { kDone = 0, kFailed = 1, kBusy = 2 };

void SetDefaultSignals()
{
	// Ignored first, which takes away one that has come for the tool's group while this process was still in it.
	for (const auto disposition : {SIG_IGN, SIG_DFL})
		for (int number = 1; number <= SIGRTMAX; ++number)
			signal(number, disposition);
	signal(SIGPIPE, SIG_IGN); // of the report, when the tool is gone
	sigset_t none;
	sigemptyset(&none);
	sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Neither the terminal nor what the tool's caller has open is to be held for as long as a pass takes.
bool Detach(int report)
{
	closelog(); // opened afresh at the first line
	setsid();
	SetDefaultSignals();
	if (dup2(report, kReport) < 0 || chdir("/") != 0)
		return false;
	closefrom(kReport + 1);
	const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
	bool isOpen = null >= 0;
	for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
		isOpen = isOpen && dup2(null, fd) == fd;
	close(null);
	return isOpen && fcntl(kReport, F_SETFD, FD_CLOEXEC) == 0;
}

void Report(std::string text)
{
	text.resize(std::min(text.size(), kMostReported));
	[[maybe_unused]] const ssize_t written = write(kReport, text.data(), text.size());
}

int CallAndReport(const std::string &volume, const std::function<int()> &call)
{
	ForgetErrors();
	if (call() != 0) {
		Report(CacheErrorText(volume));
		return kFailed;
	}
	// The only trace that an engine leaves when it has found another one at work.
	return VUNKCErrGet() == kErrEngineBusy ? kBusy : kDone;
}

[[noreturn]] void Become(int report, const std::string &volume, const std::function<int()> &call)
{
	int status = kFailed;
	try {
		if (Detach(report))
			status = CallAndReport(volume, call);
		else
			Report(std::string("its process cannot be set up (") + strerror(errno) + ")");
	} catch (...) {
		Report("memory has run out");
	}
	_exit(status); // the streams are the tool's
}

std::string ReadAll(int fd)
{
	std::array<char, kMostReported> text{};
	const ssize_t got = read(fd, text.data(), text.size());
	return std::string(text.data(), got > 0 ? static_cast<size_t>(got) : 0);
}

} // namespace

CacheProcess::CacheProcess(const std::string &volume, const std::function<int()> &call)
{
	int ends[2];
	// The reader must not wait: a pin tool's process may have the other end for longer than its engine lives.
	if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
		throw Failure(std::string("cannot make a pipe (") + strerror(errno) + "); close other programs");
	const FileDescriptor writing(ends[1]);
	report = FileDescriptor(ends[0]);
	fflush(stdout); // or the child would have the rest as well
	id = fork();
	if (id == 0)
		Become(writing.get(), volume, call);
	if (id < 0)
		throw Failure(std::string("cannot make a process (") + strerror(errno) + "); close other programs");
}

std::optional<ProcessEnd> CacheProcess::End()
{
	int status = 0;
	if (waitpid(id, &status, WNOHANG) != id)
		return std::nullopt;
	return Understand(status);
}

ProcessEnd CacheProcess::Understand(int status) const
{
	if (WIFSIGNALED(status))
		return {ProcessEnd::Kind::kKilled, WTERMSIG(status), ""};
	switch (WEXITSTATUS(status)) {
	case kDone:
		return {ProcessEnd::Kind::kDone, 0, ""};
	case kBusy:
		return {ProcessEnd::Kind::kBusy, 0, ""};
	default:
		return {ProcessEnd::Kind::kFailed, 0, ReadAll(report.get())};
	}
}
