#ifndef ZEVOTUNE_NUMBERS_H
#define ZEVOTUNE_NUMBERS_H

#include <optional>
#include <string>

/// Whether the kernel takes it for one number: decimal, octal or hexadecimal, with or without a minus.
bool IsInteger(const std::string &text);

/// Of an integer; the nearest that there is for one out of range.
long long IntegerOf(const std::string &text);

/// An int in decimal, with or without a minus.
std::optional<int> DecimalOf(const std::string &text);

/// Decimal, without a sign, of at most 64 bits.
bool IsWholeNumber(const std::string &text);

#endif
