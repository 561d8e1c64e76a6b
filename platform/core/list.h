#ifndef PLATFORM_CORE_LIST_H
#define PLATFORM_CORE_LIST_H

#include <vunkcore/list.h>

#include <string>
#include <vector>

namespace vunkc {

struct StringList : VUNKSZLIST {
	StringList() : VUNKSZLIST{0} {}
	std::vector<std::string> strings;
};

/// Appends all strings or, when memory runs out (std::bad_alloc), none. Returns the new count.
int Append(VUNKSZLIST &list, std::vector<std::string> &&strings);

} // namespace vunkc

#endif
