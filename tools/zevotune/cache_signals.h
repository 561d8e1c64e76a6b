#ifndef ZEVOTUNE_CACHE_SIGNALS_H
#define ZEVOTUNE_CACHE_SIGNALS_H

#include <string>

#include <signal.h>

/// While it lives, signals that would end the tool, and those that tell of a child or of the terminal, wait to be asked
/// for. Those that the tool's caller has it ignore stay ignored.
class HeldSignals {
public:
	HeldSignals();
	~HeldSignals();
	HeldSignals(const HeldSignals &) = delete;
	HeldSignals &operator=(const HeldSignals &) = delete;

	/// The next one; 0 when none has come after this time.
	int Wait(double seconds) const;

private:
	sigset_t held;
	sigset_t before;
};

/// Whether it asks the tool to end.
bool AsksToEnd(int signal);

/// "SIGINT"
std::string SignalName(int signal);

#endif
