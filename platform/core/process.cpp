#include "process.h"

#include <vunkcore/process.h>

#include "common/internal.h"
#include "pidfd.h"
#include "uninterrupted.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

/// What the caller learns about its child, through a pipe: the exit status of the intermediate may go to another
/// thread of the host.
struct Report {
	pid_t child; // -1: there is none
	int error;

	bool IsMissing() const { return child < 0 && error == EDEADLK; }
};

constexpr Report kNoReport = {-1, EDEADLK}; // there is no child, and nobody left who could say why
constexpr int kAttempts = 8;
constexpr int kReportDescriptor = STDERR_FILENO + 1;
constexpr timeval kPatience = {0, 250'000};

void Send(int fd, Report report)
{
	// The pipe takes so few bytes at once. The caller has no use for them when it has been killed.
	[[maybe_unused]] const ssize_t written = write(fd, &report, sizeof(report));
}

void SetDefaultDispositions()
{
	for (int number = 1; number <= SIGRTMAX; ++number)
		signal(number, SIG_DFL);
}

void UnblockSignals()
{
	sigset_t none;
	sigemptyset(&none);
	pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

/// Closes the syslog connection. fork() looks after neither the lock of syslog() nor that of the time zone, which
/// syslog() takes: when another thread of the host held one of them, nobody will ever open it in this copy. Then
/// SIGALRM ends this process, and the caller makes another one.
void CloseSyslogOrEnd()
{
	UnblockSignals();
	const itimerval patience = {{}, kPatience};
	const itimerval off = {};
	setitimer(ITIMER_REAL, &patience, nullptr);
	tzset();
	closelog();
	setitimer(ITIMER_REAL, &off, nullptr);
}

/// Leaves /dev/null on the three standard descriptors, and the report on the next one as the only other.
bool LeaveDescriptors()
{
	const int null = open("/dev/null", O_RDWR); // not close-on-exec: it may be one of the three itself
	if (null < 0)
		return false;
	for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
		if (dup2(null, fd) < 0)
			return false;
	closefrom(kReportDescriptor + 1);
	return true;
}

/// The first child: makes everything ready that the second one inherits, so that it returns from here in the latter
/// only.
void BecomeDetached(int report)
{
	SetDefaultDispositions();
	CloseSyslogOrEnd();
	// First of all, as it may be on one of the standard descriptors where the host has closed those.
	if (dup2(report, kReportDescriptor) < 0)
		_exit(0);
	if (!LeaveDescriptors()) {
		Send(kReportDescriptor, {-1, errno});
		_exit(0);
	}
	const pid_t child = fork();
	if (child < 0)
		Send(kReportDescriptor, {-1, errno});
	if (child != 0)
		_exit(0);
	setsid();
	// From the child itself: had the intermediate to say it, and were it killed before, there would be a child that the
	// caller does not know of.
	Send(kReportDescriptor, {getpid(), 0});
	close(kReportDescriptor);
}

Report Receive(int fd)
{
	Report report;
	ssize_t got;
	do
		got = read(fd, &report, sizeof(report));
	while (got < 0 && errno == EINTR);
	return got == sizeof(report) ? report : kNoReport;
}

/// Forks once and, in the child, once more. The intermediate is a child that the host sees: only fork() runs the
/// handlers that put the allocator and others in order, and fork() makes no child that ends without SIGCHLD. A host
/// that collects every child may therefore collect this one, with status 0.
Report ForkDetached()
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0)
		return {-1, errno};
	vunkc::Descriptor reading(ends[0]);
	vunkc::Descriptor writing(ends[1]);
	const pid_t intermediate = fork();
	if (intermediate < 0)
		return {-1, errno};
	if (intermediate == 0) {
		reading.Release(); // closed together with all others
		BecomeDetached(writing.Release());
		return {0, 0};
	}
	writing.Close();
	const Report report = Receive(reading.Get());
	while (waitpid(intermediate, nullptr, 0) < 0 && errno == EINTR)
		continue;
	return report;
}

/// Without pidfd_open(), which Linux 5.3 brought, which a sandbox can forbid, and which needs a free descriptor.
bool IsAliveByStat(pid_t pid)
{
	if (kill(pid, 0) != 0 && errno == ESRCH)
		return false;
	const auto stat = vunkc::ReadProcessStat(vunkc::StatPath(pid).text);
	return !stat || !stat->HasEnded();
}

} // namespace

namespace vunkc {

ssize_t ReadUpTo(int fd, char *buffer, size_t size)
{
	size_t length = 0;
	while (length < size) {
		const ssize_t got = read(fd, buffer + length, size - length);
		if (got < 0 && errno == EINTR)
			continue;
		if (got < 0)
			return -1;
		if (got == 0)
			break;
		length += static_cast<size_t>(got);
	}
	return static_cast<ssize_t>(length);
}

StatPath::StatPath(pid_t pid)
{
	snprintf(text, sizeof(text), "/proc/%d/stat", pid);
}

std::optional<ProcessStat> ReadProcessStat(const char *path)
{
	const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
	char text[4096];
	const ssize_t length = file ? ReadUpTo(file.Get(), text, sizeof(text) - 1) : -1;
	if (length < 0)
		return std::nullopt;
	text[length] = '\0';
	// The second field is the program's name in parentheses, which can hold blanks and parentheses itself.
	const char *const name = strrchr(text, ')');
	ProcessStat stat;
	if (name == nullptr ||
	    // NOLINTNEXTLINE(cert-err34-c): the kernel's numbers fit
	    sscanf(name + 1, " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %ld %*s %llu",
	           &stat.state, &stat.threads, &stat.startTime) != 3)
		return std::nullopt;
	return stat;
}

bool MeansNoProcess(int error)
{
	return error == ESRCH || error == EINVAL ||
	       error == ENOENT; // for a thread one of the latter two, as the kernel is
}

bool HasEnded(const Descriptor &process)
{
	pollfd ended = {process.Get(), POLLIN, 0};
	int ready;
	do
		ready = poll(&ended, 1, 0);
	while (ready < 0 && errno == EINTR);
	return ready > 0;
}

} // namespace vunkc

pid_t VUNKCProcForkChildNoWait(void)
{
	Report report = kNoReport;
	{
		const vunkc::Uninterrupted uninterrupted;
		for (int attempt = 0; attempt < kAttempts && report.IsMissing(); ++attempt)
			report = ForkDetached();
	}
	if (report.child == 0)
		UnblockSignals();
	if (report.child < 0) {
		errno = report.error;
		return VUNKC_FAIL(-1, VUNKC_ERR_FORK);
	}
	return report.child;
}

int VUNKCProcAlive(pid_t pid)
{
	if (pid < 1)
		return 0;
	if (const vunkc::Descriptor process(pidfd_open(pid, 0)); process)
		return !vunkc::HasEnded(process);
	return !vunkc::MeansNoProcess(errno) && IsAliveByStat(pid);
}
