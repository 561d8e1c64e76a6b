#ifndef ZEVOTUNE_STYLE_H
#define ZEVOTUNE_STYLE_H

#include <cstddef>
#include <string>
#include <string_view>

/// How output looks where it goes to. The default is that of a file or a pipe.
struct Look {
	bool colour = false;
	size_t columns = 0; // 0: lines may have any length
};

/// What a text is; never the only way to see it.
enum class Style { kPlain, kGood, kWarning, kBad, kQuiet };

std::string Styled(std::string_view text, Style style, const Look &look);

#endif
