#ifndef ZEVOTUNE_APPLICATION_H
#define ZEVOTUNE_APPLICATION_H

#include <string>

/// Applies a profile by a function of the library, 0 or -1, and keeps what that overwrites. Returns why it failed, or an empty
/// text. Throws Failure, with nothing changed, where that cannot be kept.
std::string ApplyKeeping(const std::string &profile, int (*apply)(const std::string &profile));

#endif
