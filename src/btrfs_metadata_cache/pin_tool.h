#ifndef BTRFS_METADATA_CACHE_PIN_TOOL_H
#define BTRFS_METADATA_CACHE_PIN_TOOL_H

#include <cstdint>

// Ranges are counted in sectors of 512 bytes.
inline constexpr int kSectorShift = 9;

// Pins, or unpins, a range of a volume's device in the SSD cache by running the pin tool. Both may be done again. A
// model without pinning needs no tool: 0. -1 when the tool could not be run, failed or was killed.
int PinRange(const char *szVolPath, uint64_t ullStartSector, uint64_t ullNumSectors, bool fPin);

#endif
