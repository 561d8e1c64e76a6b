#include <vunkcore/section_file.h>

#include "file_replace.h"
#include "hash.h"
#include "common/internal.h"
#include "kept_sections.h"
#include "list.h"
#include "section_text.h"
#include "text_file.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using vunkc::KeptSections;
using vunkc::Occurrence;

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

template <class Visit>
bool ForEachHeader(const char *path, std::string_view text, Visit &&visit)
{
	const int badLine = vunkc::ForEachHeader(text, visit);
	return badLine == 0 || vunkc::FailAt(false, VUNKC_ERR_SYNTAX, path, badLine);
}

bool FindOccurrences(const char *path, std::string_view text, std::string_view section, std::vector<Occurrence> &found)
{
	return ForEachHeader(path, text, [&](std::string_view name, const Occurrence &occurrence) {
		if (name == section)
			found.push_back(occurrence);
	});
}

/// Returns the number of pairs.
int SetPairsOf(std::string_view text, const std::vector<Occurrence> &occurrences, VUNKSZHASH &pairs)
{
	int count = 0;
	for (const Occurrence &occurrence : occurrences) {
		// With the header, as a byte order mark behind it is not one that a text begins with.
		vunkc::LineReader reader(text.substr(occurrence.begin, occurrence.end - occurrence.begin));
		reader.Next();
		for (vunkc::Line line = reader.Next(); line.kind == vunkc::Line::Kind::kPair; line = reader.Next()) {
			pairs.Set(line.name, line.value);
			++count;
		}
	}
	return count;
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
		std::unique_ptr<KeptSections> kept = KeptSections::Take(szPath);
		const bool isCurrent = kept && kept->IsCurrent();
		std::string text;
		std::vector<Occurrence> found;
		if (isCurrent) {
			found = kept->Find(szSection);
		} else {
			if (kept)
				kept->BeforeReading();
			if (!Read(szPath, text) || !FindOccurrences(szPath, text, szSection, found))
				return -1;
		}
		if (found.empty())
			return vunkc::FailAt(-1, VUNKC_ERR_SECTION_MISSING, szPath, 0);

		const std::string_view source = isCurrent ? kept->Text() : text;
		VUNKSZHASH pairs = vunkc::CopyOf(**ppsh);
		const int count = SetPairsOf(source, found, pairs);
		if (const bool isLast = found.back().end == source.size(); isLast)
			kept.reset();
		else if (!isCurrent)
			kept = KeptSections::AfterReading(std::move(kept), szPath, std::move(text));
		KeptSections::PutBack(std::move(kept));
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
		const auto keepName = [&](std::string_view name, const Occurrence &) { names.emplace_back(name); };
		KeptSections::Drop();
		if (!Read(szPath, text) || !ForEachHeader(szPath, text, keepName))
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
		KeptSections::Drop();
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
		KeptSections::Drop();
		if (!Read(szPath, text) || !FindOccurrences(szPath, text, szSection, found))
			return -1;
		if (found.empty())
			return 0;
		const Occurrence &first = found.front();
		std::string section = text.substr(first.begin, first.body - first.begin);
		EndLastLine(section);
		if (!vunkc::AppendPairs(section, *psh))
			return VUNKC_FAIL(-1, VUNKC_ERR_NOT_STORABLE);
		return vunkc::ReplaceFile(szPath, Spliced(text, found, section)) == 0 ? 1 : -1;
	});
}

int VUNKCFileRemoveSection(const char *szPath, const char *szSection)
{
	if (szPath == nullptr || szSection == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::string text;
		std::vector<Occurrence> found;
		KeptSections::Drop();
		if (!Read(szPath, text) || !FindOccurrences(szPath, text, szSection, found))
			return -1;
		if (found.empty())
			return 0;
		return vunkc::ReplaceFile(szPath, Spliced(text, found, {})) == 0 ? 1 : -1;
	});
}
