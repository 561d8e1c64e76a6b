#ifndef SUPPORT_TEXT_BUFFER_H
#define SUPPORT_TEXT_BUFFER_H

#include <cstdarg>
#include <cstddef>
#include <cstdio>

// A zero-filled text of bounded length. What does not fit is cut, and the cut text is what is used: a path that is too
// long names whatever its first Capacity - 1 bytes name.
template <size_t Capacity>
class TextBuffer {
public:
	TextBuffer() = default;

	__attribute__((format(printf, 2, 3))) explicit TextBuffer(const char *format, ...)
	{
		va_list values;
		va_start(values, format);
		vsnprintf(text, Capacity, format, values);
		va_end(values);
	}

	char *data() { return text; }
	const char *c_str() const { return text; }
	static constexpr size_t capacity() { return Capacity; }

private:
	char text[Capacity] = {};
};

using ConfigPath = TextBuffer<1024>;

#endif
