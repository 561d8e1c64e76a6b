#ifndef BTRFS_METADATA_CACHE_MAPPING_SECTION_H
#define BTRFS_METADATA_CACHE_MAPPING_SECTION_H

#include "support/handles.h"

// A section of the mapping file, read and written as a whole; reading and writing leave their lines when they fail. The
// syntax of the file is the core library's, and so is that readers find the old file or the new one.
class MappingSection {
public:
	enum class Need { Required, MayBeMissing };

	// Both texts are the caller's, and must stay.
	MappingSection(const char *szPath, const char *szSection) : path(szPath), name(szSection) {}

	bool Read(Need need = Need::Required);
	bool IsMissing() const { return isMissing; }
	const char *Get(const char *szKey) const { return pairs.Get(szKey); }
	Hash &Pairs() { return pairs; }
	// Adds one that was missing.
	bool Write() const;

private:
	const char *const path;
	const char *const name;
	Hash pairs;
	bool isMissing = false;
};

#endif
