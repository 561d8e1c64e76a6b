#include "cache_signals.h"

#include <cmath>
#include <cstring>

#include <time.h>

namespace {

bool IsIgnored(int number)
{
	struct sigaction action {};
	return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

} // namespace

HeldSignals::HeldSignals()
{
	signal(SIGCHLD, SIG_DFL); // who ignores it, as some callers have the tool do, is not told how children end
	sigemptyset(&held);
	// Blocked, a signal that is ignored would come all the same.
	for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGWINCH})
		if (!IsIgnored(number))
			sigaddset(&held, number);
	sigprocmask(SIG_BLOCK, &held, &before);
}

HeldSignals::~HeldSignals()
{
	sigprocmask(SIG_SETMASK, &before, nullptr);
}

int HeldSignals::Wait(double seconds) const
{
	double whole;
	const double part = std::modf(seconds, &whole);
	const timespec time{static_cast<time_t>(whole), static_cast<long>(part * 1e9)};
	const int number = sigtimedwait(&held, nullptr, &time);
	return number > 0 ? number : 0;
}

bool AsksToEnd(int signal)
{
	return signal == SIGINT || signal == SIGTERM || signal == SIGHUP;
}

std::string SignalName(int signal)
{
	const char *const name = sigabbrev_np(signal);
	return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(signal);
}
