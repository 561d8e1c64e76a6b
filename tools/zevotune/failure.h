#ifndef ZEVOTUNE_FAILURE_H
#define ZEVOTUNE_FAILURE_H

#include <stdexcept>

/// Ends a command with exit status 1. The text is the line that the user gets: what failed, on which path, why, and
/// what to do.
struct Failure : std::runtime_error {
	using runtime_error::runtime_error;
};

#endif
