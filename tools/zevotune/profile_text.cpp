#include "profile_text.h"

#include "failure.h"

#include "common/text_lines.h"
#include "common/text_read.h"

#include <vunkcore/error.h>

#include <cerrno>
#include <cstring>

ProfileText ParseProfileText(std::string_view text)
{
	using Kind = vunkc::Line::Kind;
	ProfileText profile;
	vunkc::LineReader reader(text);
	for (vunkc::Line line = reader.Next(); line.kind != Kind::kEnd; line = reader.Next()) {
		if (line.kind == Kind::kHeader)
			profile.sections.push_back({std::string(line.name), line.number, {}});
		else if (line.kind == Kind::kPair && !profile.sections.empty())
			profile.sections.back().pairs.push_back(
				{std::string(line.name), std::string(line.value), line.number});
		else
			profile.badLines.push_back(line.number);
	}
	return profile;
}

ProfileText ReadProfileText(const std::string &path)
{
	std::string text;
	if (vunkc::ReadText(path.c_str(), text) != VUNKC_ERR_NONE)
		throw Failure(path + " cannot be read (" + strerror(errno) + ")");
	return ParseProfileText(text);
}

int LineOf(const ProfileText &text, std::string_view section, std::string_view key)
{
	int line = 0;
	for (const ProfileText::Section &one : text.sections)
		for (const ProfileText::Pair &pair : one.pairs)
			if (one.name == section && pair.key == key)
				line = pair.line;
	return line;
}

int LineOf(const ProfileText &text, std::string_view section)
{
	for (const ProfileText::Section &one : text.sections)
		if (one.name == section)
			return one.line;
	return 0;
}
