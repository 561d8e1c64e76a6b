#ifndef ZEVOTUNE_OUTPUT_H
#define ZEVOTUNE_OUTPUT_H

#include <json/value.h>

#include <string>
#include <string_view>

/// In characters of UTF-8, all of them taken to be one column wide.
size_t Width(std::string_view text);

/// The text with control characters as "\x1B": it stays one line and does nothing to a terminal.
std::string Printable(std::string_view text);

/// Standard output. Failures show at the end, in FlushOutput.
void Print(std::string_view text);
void PrintLine(std::string_view text);
void PrintJson(const Json::Value &value);
void PrintJsonLine(const Json::Value &value);

/// For programs, a text that is empty when there is none.
Json::Value TextOrNull(const std::string &text);

/// Throws Failure when not all of the output could be written.
void FlushOutput();

/// One line on standard error, "zevotune: ...".
void Complain(std::string_view text);

#endif
