// The line reader on any bytes, and what is written back from the pairs that it finds.

#include "fuzz.h"
#include "hash.h"
#include "text_file.h"

using vunkc::Line;

namespace {

VUNKSZHASH ReadPairs(std::string_view text, bool &readable)
{
	VUNKSZHASH pairs;
	vunkc::LineReader reader(text);
	int number = 0;
	size_t behind = 0;
	readable = true;
	for (Line line = reader.Next(); line.kind != Line::Kind::kEnd; line = reader.Next()) {
		REQUIRE(line.number > number && line.begin >= behind && line.end > line.begin &&
		        line.end <= text.size());
		number = line.number;
		behind = line.end;
		if (line.kind == Line::Kind::kBad) {
			readable = false;
			break;
		}
		const std::string_view whole = text.substr(line.begin, line.end - line.begin);
		REQUIRE(!line.name.empty() && whole.find(line.name) != std::string_view::npos);
		REQUIRE(line.name.find('\n') == std::string_view::npos &&
		        line.name.find('\0') == std::string_view::npos);
		REQUIRE(line.value.find('\n') == std::string_view::npos &&
		        line.value.find('\0') == std::string_view::npos);
		if (line.kind == Line::Kind::kPair)
			pairs.Set(line.name, line.value);
	}
	return pairs;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	bool readable;
	const VUNKSZHASH pairs = ReadPairs({reinterpret_cast<const char *>(data), size}, readable);
	std::string text = "\n";                  // no key begins like a byte order mark on a first line that is empty
	REQUIRE(vunkc::AppendPairs(text, pairs)); // what was read can be written
	const VUNKSZHASH again = ReadPairs(text, readable);
	REQUIRE(readable && again.InOrder().size() == pairs.InOrder().size());
	for (size_t i = 0; i < pairs.InOrder().size(); ++i)
		REQUIRE(*again.InOrder()[i] == *pairs.InOrder()[i]);
	return 0;
}
