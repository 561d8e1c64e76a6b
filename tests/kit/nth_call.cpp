#include "kit/nth_call.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <optional>
#include <stdexcept>
#include <utility>

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kit {
namespace {

/// In memory that children share, as a call can be one of theirs.
struct State {
	std::atomic<bool> active;
	Calls calls;
	NthCall::Effect effect;
	std::atomic<int> countdown;
	bool struck;
	char function[64];
};

// Past the C library's mmap(), which asks here whether it is to fail. Null while the constructors of libraries run, which
// make calls as well.
State *const state = [] {
	const long shared =
		syscall(SYS_mmap, nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	if (shared == -1)
		abort();
	return new (reinterpret_cast<void *>(shared)) State{};
}();

thread_local int uncounted = 0;

struct Hook {
	Calls calls;
	int countdown;
	std::function<void()> run;
};

std::optional<Hook> hook;

void RunHook(Calls calls)
{
	if (!hook.has_value() || calls != hook->calls || hook->countdown <= 0 || --hook->countdown != 0)
		return;
	const Uncounted itsOwnCalls;
	hook->run();
}

} // namespace

NthCall::NthCall(Calls calls, int n, Effect effect)
{
	if (state->active)
		throw std::logic_error("one at a time");
	state->calls = calls;
	state->effect = effect;
	state->countdown = n;
	state->struck = false;
	state->active = true;
}

NthCall::~NthCall()
{
	state->active = false;
}
bool NthCall::Struck() const
{
	return state->struck;
}
std::string NthCall::Function() const
{
	return state->function;
}

std::string StruckFunction()
{
	return state->struck ? state->function : "";
}

BeforeNth::BeforeNth(Calls calls, int n, std::function<void()> run)
{
	if (hook.has_value())
		throw std::logic_error("one at a time");
	hook = Hook{calls, n, std::move(run)};
}

BeforeNth::~BeforeNth()
{
	hook.reset();
}

bool IsNth(Calls calls, const char *function, bool changesState)
{
	if (uncounted == 0)
		RunHook(calls);
	if (state == nullptr || !state->active || uncounted > 0 || calls != state->calls)
		return false;
	if (state->effect == NthCall::Kill && !changesState)
		return false;
	if (--state->countdown != 0)
		return false;
	if (state->effect == NthCall::Kill) {
		state->active = false;
		kill(getpid(), SIGKILL);
	}
	state->struck = true;
	snprintf(state->function, sizeof(state->function), "%s", function);
	return true;
}

void CountChange(const char *what)
{
	if (state->active && state->effect == NthCall::Kill)
		IsNth(Calls::System, what, true);
}

Uncounted::Uncounted()
{
	++uncounted;
}
Uncounted::~Uncounted()
{
	--uncounted;
}

} // namespace kit
