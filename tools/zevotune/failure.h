#ifndef ZEVOTUNE_FAILURE_H
#define ZEVOTUNE_FAILURE_H

#include <stdexcept>
#include <string>

/// Ends a command with exit status 1, or another one. The text is the line that the user gets: what failed, on which
/// path, why, and what to do.
struct Failure : std::runtime_error {
	static constexpr int kExitStatus = 1;

	explicit Failure(const std::string &text, int withStatus = kExitStatus)
		: runtime_error(text), exitStatus(withStatus)
	{
	}

	int exitStatus;
};

/// Ends a command whose answer, printed already, is "no": with exit status 1, but without a line of failure.
struct AnswerIsNo {};

#endif
