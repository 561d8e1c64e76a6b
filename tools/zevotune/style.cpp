#include "style.h"

namespace {

// The eight colours that every terminal has, in the shades that its user has chosen for them.
const char *SequenceOf(Style style)
{
	switch (style) {
	case Style::kGood:
		return "\x1B[32m";
	case Style::kWarning:
		return "\x1B[33m";
	case Style::kBad:
		return "\x1B[31m";
	case Style::kQuiet:
		return "\x1B[2m";
	case Style::kPlain:
		break;
	}
	return nullptr;
}

} // namespace

std::string Styled(std::string_view text, Style style, const Look &look)
{
	const char *const sequence = look.colour && !text.empty() ? SequenceOf(style) : nullptr;
	if (sequence == nullptr)
		return std::string(text);
	return sequence + std::string(text) + "\x1B[0m";
}
