#include "numbers.h"

#include <charconv>
#include <cstdlib>
#include <system_error>

namespace {

template <class Number>
std::optional<Number> Decimal(const std::string &text)
{
	Number number = 0;
	const char *const end = text.data() + text.size();
	const auto [stop, error] = std::from_chars(text.data(), end, number);
	return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

} // namespace

bool IsInteger(const std::string &text)
{
	const size_t digits = text.starts_with('-') ? 1 : 0;
	if (digits == text.size() || text[digits] < '0' || text[digits] > '9')
		return false;
	char *end = nullptr;
	strtoll(text.c_str(), &end, 0);
	return end == text.c_str() + text.size();
}

long long IntegerOf(const std::string &text)
{
	return strtoll(text.c_str(), nullptr, 0);
}

std::optional<int> DecimalOf(const std::string &text)
{
	return Decimal<int>(text);
}

bool IsWholeNumber(const std::string &text)
{
	return Decimal<unsigned long long>(text).has_value();
}
