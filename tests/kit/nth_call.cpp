#include "kit/nth_call.h"

#include <atomic>
#include <csignal>
#include <stdexcept>

#include <unistd.h>

namespace kit {
namespace {

struct State {
	std::atomic<bool> active = false;
	Calls calls;
	NthCall::Effect effect;
	std::atomic<int> countdown;
	bool struck;
	std::string function;
} state;

thread_local int uncounted = 0;

} // namespace

NthCall::NthCall(Calls calls, int n, Effect effect)
{
	if (state.active)
		throw std::logic_error("one at a time");
	state.calls = calls;
	state.effect = effect;
	state.countdown = n;
	state.struck = false;
	state.function.clear();
	state.active = true;
}

NthCall::~NthCall()
{
	state.active = false;
}
bool NthCall::Struck() const
{
	return state.struck;
}
const std::string &NthCall::Function() const
{
	return state.function;
}

bool IsNth(Calls calls, const char *function, bool changesState)
{
	if (!state.active || uncounted > 0 || calls != state.calls)
		return false;
	if (state.effect == NthCall::Kill && !changesState)
		return false;
	if (--state.countdown != 0)
		return false;
	if (state.effect == NthCall::Kill)
		kill(getpid(), SIGKILL);
	state.struck = true;
	state.function = function;
	return true;
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
