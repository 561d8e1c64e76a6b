#ifndef ZEVOTUNE_UNDO_H
#define ZEVOTUNE_UNDO_H

#include "kept_values.h"
#include "style.h"

#include <vector>

/// What has become of a value that was to be restored. It points into the kept values.
struct RestoredValue {
	const KeptValue *kept;
	KernelValue found; // before anything was written to it
	KernelValue now;
};

/// Writes back what was overwritten: schedulers first, as their tunables come with them.
std::vector<RestoredValue> Restore(const KeptValues &kept);

bool IsRestored(const RestoredValue &value);

std::string RestorationText(const std::vector<RestoredValue> &values, const Look &look);
Json::Value RestorationJson(const std::vector<RestoredValue> &values);

#endif
