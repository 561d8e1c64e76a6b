// A scheduler file of any bytes: the first line of the input is the scheduler that is looked for, the rest is the file.

#include "fuzz.h"
#include "utils/apply/disk.h"

namespace {

constexpr std::string_view kDelimiters = " []\n";

bool Offers(std::string_view file, std::string_view scheduler)
{
	while (!file.empty()) {
		std::string_view line = file.substr(0, file.find('\n'));
		file.remove_prefix(std::min(line.size() + 1, file.size()));
		line = line.substr(0, line.find('\0')); // what stands behind it in the line is not seen
		while (!line.empty()) {
			const std::string_view token = line.substr(0, line.find_first_of(kDelimiters));
			if (!token.empty() && token == scheduler)
				return true;
			line.remove_prefix(std::min(token.size() + 1, line.size()));
		}
	}
	return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const std::string_view input(reinterpret_cast<const char *>(data), size);
	const size_t end = std::min(input.find('\n'), size);
	const std::string scheduler(input.substr(0, std::min(input.find('\0'), end)));
	const size_t begin = std::min(end + 1, size);
	const std::string &path = FuzzFile(data + begin, size - begin);
	REQUIRE(TuneCheckSchedulerSupport(path.c_str(), scheduler.c_str()) == Offers(input.substr(begin), scheduler));
	return 0;
}
