#ifndef PLATFORM_CORE_FILE_REPLACE_H
#define PLATFORM_CORE_FILE_REPLACE_H

#include <string_view>

namespace vunkc {

/// Whether a change is on disk when the call returns, or at the latest with the next one in the same folder that is. A power
/// cut leaves the old file or the new one in either case.
enum class Durable { kOnReturn, kWithTheNext };

/// Makes `text` the whole content of a file, which may be missing, in the way that <vunkcore/text_file.h> describes.
/// Returns 0, or -1 with errno set and VUNKC_ERR_FILE_WRITE naming `path` on the error stack, when the file is as it
/// was. May throw std::bad_alloc, likewise with the file as it was.
int ReplaceFile(const char *path, std::string_view text, Durable durable = Durable::kOnReturn);

} // namespace vunkc

#endif
