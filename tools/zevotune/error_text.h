#ifndef ZEVOTUNE_ERROR_TEXT_H
#define ZEVOTUNE_ERROR_TEXT_H

#include <string>

/// Clears the error stack, so that ErrorText does not tell of an older failure. Call it before a call of the library.
void ForgetErrors();

/// What made the library's last call fail: on which path, why, and what to do.
std::string ErrorText();

/// The same for a failure that is shown and does not end the command. Throws std::bad_alloc for a lack of memory, which
/// does.
std::string ReasonInPlace();

#endif
