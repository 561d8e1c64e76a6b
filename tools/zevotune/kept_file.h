#ifndef ZEVOTUNE_KEPT_FILE_H
#define ZEVOTUNE_KEPT_FILE_H

// The file of kept values. Everything here throws Failure.

#include "kept_values.h"

#include "support/handles.h"

#include <optional>

inline constexpr const char *kKeptFile = "/run/zevotuned/undo.json";

/// Holds other commands off that apply or undo, for as long as it lives.
class ApplicationLock {
public:
	/// Waits up to 5 seconds.
	ApplicationLock();

private:
	FileDescriptor folder;
};

/// Nothing when there is none. A file that somebody else than root could have written is refused.
std::optional<KeptValues> LoadKept();

/// As a whole or not at all.
void SaveKept(const KeptValues &kept);

void RemoveKept();

#endif
