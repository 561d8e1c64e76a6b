#ifndef ZEVOTUNE_CACHE_ERROR_TEXT_H
#define ZEVOTUNE_CACHE_ERROR_TEXT_H

#include <string>

/// As ErrorText, after a call that had to do with a volume's metadata cache.
std::string CacheErrorText(const std::string &volume);

#endif
