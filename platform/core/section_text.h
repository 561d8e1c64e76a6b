#ifndef PLATFORM_CORE_SECTION_TEXT_H
#define PLATFORM_CORE_SECTION_TEXT_H

#include "common/text_lines.h"

#include <cstddef>
#include <string_view>

namespace vunkc {

/// A header and all that stands between it and the next one.
struct Occurrence {
	size_t begin;
	size_t body; // behind the header's line
	size_t end;
};

/// Calls visit(name, occurrence) for each header of a text, up to the first line that makes the text unreadable. Returns the
/// number of that line, 0 when there is none.
template <class Visit>
int ForEachHeader(std::string_view text, Visit &&visit)
{
	LineReader reader(text);
	Line line = reader.Next();
	if (line.kind == Line::Kind::kPair) // of no section
		return line.number;
	while (line.kind == Line::Kind::kHeader) {
		const Line next = reader.NextHeader();
		const size_t end = next.kind == Line::Kind::kEnd ? text.size() : next.begin;
		visit(line.name, Occurrence{line.begin, line.end, end});
		line = next;
	}
	return line.kind == Line::Kind::kBad ? line.number : 0;
}

} // namespace vunkc

#endif
