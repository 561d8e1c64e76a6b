#include "text_file.h"

#include "hash.h"

namespace vunkc {
namespace {

bool HasBlankEnd(std::string_view text)
{
	return IsBlank(text.front()) || IsBlank(text.back());
}

bool IsStorableKey(std::string_view key)
{
	return !key.empty() && !HasBlankEnd(key) && !IsCommentSign(key.front()) && key.front() != '[' &&
	       key.find_first_of("=\n") == std::string_view::npos;
}

bool IsStorableValue(std::string_view value)
{
	return value.find('\n') == std::string_view::npos;
}

} // namespace

bool IsStorableSection(std::string_view name)
{
	return !name.empty() && !HasBlankEnd(name) && name.find('\n') == std::string_view::npos;
}

void AppendHeader(std::string &text, std::string_view name)
{
	text.append("[").append(name).append("]\n");
}

bool AppendPairs(std::string &text, const VUNKSZHASH &pairs)
{
	for (const VUNKSZHASH::Pair *pair : pairs.InOrder()) {
		const auto &[key, value] = *pair;
		if (!IsStorableKey(key) || !IsStorableValue(value))
			return false;
		text.append(key).append("=\"").append(value).append("\"\n");
	}
	return true;
}

VUNKSZHASH CopyOf(const VUNKSZHASH &pairs)
{
	VUNKSZHASH copy;
	for (const VUNKSZHASH::Pair *pair : pairs.InOrder())
		copy.Set(pair->first, pair->second);
	return copy;
}

} // namespace vunkc
