#ifndef PLATFORM_CORE_FILE_REPLACE_H
#define PLATFORM_CORE_FILE_REPLACE_H

#include <string_view>

namespace vunkc {

/// Makes `text` the whole content of a file, which may be missing, in the way that <vunkcore/text_file.h> describes.
/// Returns 0, or -1 with errno set and VUNKC_ERR_FILE_WRITE naming `path` on the error stack, when the file is as it
/// was. May throw std::bad_alloc, likewise with the file as it was.
int ReplaceFile(const char *path, std::string_view text);

} // namespace vunkc

#endif
