#ifndef BTRFS_METADATA_CACHE_CHUNK_RECORDS_H
#define BTRFS_METADATA_CACHE_CHUNK_RECORDS_H

#include "support/handles.h"
#include "support/text_buffer.h"

#include <zevotuned/chunk_info.h>

#include <string_view>
#include <vector>

// The sections of the mapping file that stand for chunks (mapping.h). Those that read or write one leave a line when
// they fail.

using SectionName = TextBuffer<32>;

SectionName SectionOf(const chunk_info &chunk);

bool IsConfigSection(std::string_view name);

// Reads a section. False when it lacks something or cannot be of a chunk: its name is no offset, a value
// is no number, or there are more stripes than chunk_info holds. A section without "status" counts as done.
bool ReadRecord(const char *szConfigPath, const char *szSection, chunk_info &chunk);

// As it, but silently.
bool TryRecord(const char *szConfigPath, const char *szSection, chunk_info &chunk);

// The names in a list, in its order, each once: a section whose header stands twice in the file is one all the same.
std::vector<const char *> NamesOnce(const List &sections);

// Those that write have it on disk when they return.

// Records a chunk that is not read yet.
bool AddRecord(const char *szConfigPath, const chunk_info &chunk);

// Records that a chunk, which must be recorded, has been pinned and read. 0 or -1.
int PinBtrfsMetadataSectionUpdateChunkDone(const char *szConfigPath, const chunk_info *pChunk);
// Takes that back of the recorded chunk with an offset.
int PinBtrfsMetadataSectionUpdateChunkUnread(const char *szConfigPath, unsigned long long ullOffset);

bool RemoveRecord(const char *szConfigPath, const char *szSection);

#endif
