#ifndef PLATFORM_CORE_TEXT_FILE_H
#define PLATFORM_CORE_TEXT_FILE_H

#include "common/text_lines.h"
#include "common/text_read.h"

#include <vunkcore/hash.h>
#include <vunkcore/text_file.h>

#include <string>
#include <string_view>

namespace vunkc {

/// Whether the syntax can hold a name of a section such that it is read back as it is.
bool IsStorableSection(std::string_view name);

void AppendHeader(std::string &text, std::string_view name);

/// Appends the lines of all pairs, or returns false when the syntax cannot hold one of them.
bool AppendPairs(std::string &text, const VUNKSZHASH &pairs);

/// A hash of its own with the same pairs in the same order.
VUNKSZHASH CopyOf(const VUNKSZHASH &pairs);

} // namespace vunkc

#endif
