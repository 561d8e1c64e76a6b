#include <vunkcore/section_file.h>

#include "file_replace.h"
#include "hash.h"
#include "common/internal.h"
#include "list.h"
#include "text_file.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using vunkc::Line;

/// A header and all that stands between it and the next one.
struct Occurrence {
	size_t begin;
	size_t body; // behind the header's line
	size_t end;
};

bool Read(const char *path, std::string &text)
{
	const int error = vunkc::ReadText(path, text);
	return error == VUNKC_ERR_NONE || vunkc::FailAt(false, error, path, 0);
}

bool ReadIfThere(const char *path, std::string &text)
{
	const int error = vunkc::ReadText(path, text);
	return error == VUNKC_ERR_NONE || error == VUNKC_ERR_FILE_MISSING || vunkc::FailAt(false, error, path, 0);
}

/// Calls `visit` with every header and every pair of a text, up to the first line that makes it unreadable.
template <class Visit>
bool ForEachLine(const char *path, std::string_view text, Visit &&visit)
{
	vunkc::LineReader reader(text);
	bool inSection = false;
	for (Line line = reader.Next(); line.kind != Line::Kind::kEnd; line = reader.Next()) {
		inSection = inSection || line.kind == Line::Kind::kHeader;
		if (line.kind == Line::Kind::kBad || !inSection)
			return vunkc::FailAt(false, VUNKC_ERR_SYNTAX, path, line.number);
		visit(line);
	}
	return true;
}

bool FindOccurrences(const char *path, std::string_view text, std::string_view section, std::vector<Occurrence> &found)
{
	bool inside = false;
	return ForEachLine(path, text, [&](const Line &line) {
		if (line.kind != Line::Kind::kHeader)
			return;
		if (inside)
			found.back().end = line.begin;
		inside = line.name == section;
		if (inside)
			found.push_back({line.begin, line.end, text.size()});
	});
}

/// The text with `replacement` in place of the first occurrence and nothing in place of the others.
std::string Spliced(std::string_view text, const std::vector<Occurrence> &occurrences, std::string_view replacement)
{
	std::string result;
	result.reserve(text.size() + replacement.size());
	size_t kept = 0;
	for (const Occurrence &occurrence : occurrences) {
		result.append(text, kept, occurrence.begin - kept);
		result.append(replacement);
		replacement = {};
		kept = occurrence.end;
	}
	return result.append(text, kept);
}

void EndLastLine(std::string &text)
{
	if (!text.empty() && text.back() != '\n')
		text.push_back('\n');
}

} // namespace

int VUNKCFileGetSection(const char *szPath, const char *szSection, VUNKSZHASH **ppsh)
{
	if (szPath == nullptr || szSection == nullptr || ppsh == nullptr || *ppsh == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::string text;
		if (!Read(szPath, text))
			return -1;

		const std::string_view section = szSection;
		VUNKSZHASH pairs = vunkc::CopyOf(**ppsh);
		bool found = false;
		bool inside = false;
		int count = 0;
		const bool readable = ForEachLine(szPath, text, [&](const Line &line) {
			if (line.kind == Line::Kind::kHeader) {
				inside = line.name == section;
				found = found || inside;
			} else if (inside) {
				pairs.Set(line.name, line.value);
				++count;
			}
		});
		if (!readable)
			return -1;
		if (!found)
			return vunkc::FailAt(-1, VUNKC_ERR_SECTION_MISSING, szPath, 0);
		std::swap(**ppsh, pairs);
		return count;
	});
}

int VUNKCFileEnumSection(const char *szPath, VUNKSZLIST **ppslSections)
{
	if (szPath == nullptr || ppslSections == nullptr || *ppslSections == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::string text;
		std::vector<std::string> names;
		const auto keepName = [&](const Line &line) {
			if (line.kind == Line::Kind::kHeader)
				names.emplace_back(line.name);
		};
		if (!Read(szPath, text) || !ForEachLine(szPath, text, keepName))
			return -1;
		const int count = static_cast<int>(names.size());
		vunkc::Append(**ppslSections, std::move(names));
		return count;
	});
}

int VUNKCFileAddSection(const char *szPath, const char *szSection, const VUNKSZHASH *psh)
{
	if (szPath == nullptr || szSection == nullptr || psh == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::string text;
		std::vector<Occurrence> found;
		if (!ReadIfThere(szPath, text) || !FindOccurrences(szPath, text, szSection, found))
			return -1;
		if (!found.empty())
			return 0;
		if (!vunkc::IsStorableSection(szSection))
			return VUNKC_FAIL(-1, VUNKC_ERR_NOT_STORABLE);
		EndLastLine(text);
		vunkc::AppendHeader(text, szSection);
		if (!vunkc::AppendPairs(text, *psh))
			return VUNKC_FAIL(-1, VUNKC_ERR_NOT_STORABLE);
		return vunkc::ReplaceFile(szPath, text) == 0 ? 1 : -1;
	});
}

int VUNKCIFileModifySection(const char *szPath, const char *szSection, const char *szNewName, const VUNKSZHASH *psh,
                            int fReplace, int iFlags)
{
	if (szPath == nullptr || szSection == nullptr || psh == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	if (szNewName != nullptr || fReplace != 1 || iFlags != 0)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::string text;
		std::vector<Occurrence> found;
		if (!Read(szPath, text) || !FindOccurrences(szPath, text, szSection, found))
			return -1;
		if (found.empty())
			return 0;
		const Occurrence &first = found.front();
		std::string section = text.substr(first.begin, first.body - first.begin);
		EndLastLine(section);
		if (!vunkc::AppendPairs(section, *psh))
			return VUNKC_FAIL(-1, VUNKC_ERR_NOT_STORABLE);
		const int result =
			vunkc::ReplaceFile(szPath, Spliced(text, found, section), vunkc::Durable::kWithTheNext);
		return result == 0 ? 1 : -1;
	});
}

int VUNKCFileRemoveSection(const char *szPath, const char *szSection)
{
	if (szPath == nullptr || szSection == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::string text;
		std::vector<Occurrence> found;
		if (!Read(szPath, text) || !FindOccurrences(szPath, text, szSection, found))
			return -1;
		if (found.empty())
			return 0;
		return vunkc::ReplaceFile(szPath, Spliced(text, found, {})) == 0 ? 1 : -1;
	});
}
