#ifndef ZEVOTUNE_DEVICE_SECTIONS_H
#define ZEVOTUNE_DEVICE_SECTIONS_H

// Which sections of a profile concern what.

#include "devices.h"

/// Types of disks that [disk] concerns.
bool IsOfDiskSection(unsigned type);

/// Whether a volume lies on SSDs alone; nothing when that is unknown.
std::optional<bool> SsdOnly(const Volume &volume);

std::vector<std::string> SectionsOf(const Volume &volume);
std::vector<std::string> SectionsOf(const Array &array);
std::vector<std::string> SectionsOf(const Disk &disk);

#endif
