#include <vunkcore/pair_file.h>

#include "file_replace.h"
#include "hash.h"
#include "common/internal.h"
#include "text_file.h"

#include <string>
#include <utility>

using vunkc::Line;

int VUNKCFileGetPair(const char *szPath, VUNKSZHASH **ppsh)
{
	if (szPath == nullptr || ppsh == nullptr || *ppsh == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::string text;
		if (const int error = vunkc::ReadText(szPath, text); error != VUNKC_ERR_NONE)
			return vunkc::FailAt(-1, error, szPath, 0);

		// Into a copy, so that a bad line, or a lack of memory, further down leaves the caller's hash as it
		// was.
		VUNKSZHASH pairs = vunkc::CopyOf(**ppsh);
		int count = 0;
		vunkc::LineReader reader(text);
		for (Line line = reader.Next(); line.kind != Line::Kind::kEnd; line = reader.Next()) {
			if (line.kind != Line::Kind::kPair)
				return vunkc::FailAt(-1, VUNKC_ERR_SYNTAX, szPath, line.number);
			pairs.Set(line.name, line.value);
			++count;
		}
		std::swap(**ppsh, pairs);
		return count;
	});
}

int VUNKCFileSetPair(const char *szPath, const VUNKSZHASH *psh, int iFlags)
{
	if (szPath == nullptr || psh == nullptr || iFlags != 0)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::string text;
		if (!vunkc::AppendPairs(text, *psh))
			return VUNKC_FAIL(-1, VUNKC_ERR_NOT_STORABLE);
		// A first key that begins like a byte order mark would lose it to the mark that readers pass over.
		if (text.starts_with(vunkc::kByteOrderMark))
			text.insert(text.begin(), '\n');
		return vunkc::ReplaceFile(szPath, text);
	});
}
