#include "output.h"

#include "failure.h"

#include <json/writer.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Everything but ASCII is escaped, so that names which are not UTF-8 do not spoil the text for its readers.
std::string JsonText(const Json::Value &value, const char *indentation)
{
	Json::StreamWriterBuilder writer;
	writer["indentation"] = indentation;
	writer["enableYAMLCompatibility"] = true; // "key": value
	return Json::writeString(writer, value);
}

} // namespace

size_t Width(std::string_view text)
{
	return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

std::string Printable(std::string_view text)
{
	std::string printable;
	for (size_t i = 0; i < text.size(); ++i) {
		// Of U+0080 to U+009F the second byte is escaped, which leaves no character behind.
		const auto byte = static_cast<unsigned char>(text[i]);
		const bool isC1 = byte >= 0x80 && byte < 0xA0 && i > 0 && text[i - 1] == '\xC2';
		if (byte >= 0x20 && byte != 0x7F && !isC1) {
			printable += text[i];
			continue;
		}
		if (isC1)
			printable.pop_back();
		char escape[12];
		snprintf(escape, sizeof(escape), isC1 ? "\\xC2\\x%02X" : "\\x%02X", static_cast<unsigned>(byte));
		printable += escape;
	}
	return printable;
}

void Print(std::string_view text)
{
	fwrite(text.data(), 1, text.size(), stdout);
}

void PrintLine(std::string_view text)
{
	Print(std::string(text) + '\n');
}

void PrintJson(const Json::Value &value)
{
	PrintLine(JsonText(value, "  "));
}

void PrintJsonLine(const Json::Value &value)
{
	PrintLine(JsonText(value, ""));
}

Json::Value TextOrNull(const std::string &text)
{
	return text.empty() ? Json::Value() : Json::Value(text);
}

void FlushOutput()
{
	// Whichever write failed, the next one tells the reason.
	if (fflush(stdout) != 0 || ferror(stdout) != 0)
		throw Failure(std::string("cannot write to standard output (") + strerror(errno) + ")");
}

void Complain(std::string_view text)
{
	const std::string line = "zevotune: " + Printable(text) + '\n';
	fwrite(line.data(), 1, line.size(), stderr);
}
