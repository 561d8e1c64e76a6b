#include "kit/pin_tool.h"

#include "kit/faults.h"
#include "kit/nth_call.h"
#include "kit/real.h"
#include "kit/timeline.h"

#include <vunkcore/vunkcore.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <stdexcept>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

kit::PinTool *current = nullptr;

/// Digits and nothing else.
bool ParseNumber(const std::string &text, size_t &number)
{
	if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos)
		return false;
	number = std::stoull(text);
	return true;
}

} // namespace

extern "C" int VUNKCExecl(const char *szProgram, int iFlags, ...)
{
	std::vector<std::string> arguments;
	va_list values;
	va_start(values, iFlags);
	while (const char *const szArgument = va_arg(values, const char *))
		arguments.emplace_back(szArgument);
	va_end(values);
	if (kit::Strikes(kit::Calls::Platform, "VUNKCExecl")) {
		VUNKCErrSetEx(kit::kFaultCode, "fault", 1);
		return -1;
	}
	if (kit::PinTool::Current() != nullptr)
		return kit::PinTool::Current()->Run(szProgram, iFlags, arguments);
	static const auto real = kit::Real<decltype(VUNKCExecl)>("VUNKCExecl");
	constexpr size_t kMost = 12;
	if (arguments.size() > kMost)
		throw std::logic_error("more arguments than the kit passes on");
	const char *sz[kMost + 1] = {};
	std::transform(arguments.begin(), arguments.end(), sz, [](const std::string &text) { return text.c_str(); });
	return real(szProgram, iFlags, sz[0], sz[1], sz[2], sz[3], sz[4], sz[5], sz[6], sz[7], sz[8], sz[9], sz[10],
	            sz[11], sz[12]);
}

namespace kit {

PinTool::PinTool()
{
	if (current != nullptr)
		throw std::logic_error("one at a time");
	void *const shared = mmap(nullptr, sizeof(Bits), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	if (shared == MAP_FAILED)
		throw std::bad_alloc();
	bits = static_cast<Bits *>(shared);
	current = this;
}

PinTool::~PinTool()
{
	current = nullptr;
	munmap(bits, sizeof(Bits));
}

PinTool *PinTool::Current()
{
	return current;
}

void PinTool::Clear()
{
	*bits = {};
}

std::string PinTool::Pinned() const
{
	std::string text;
	const auto isPinned = [&](size_t block) {
		return block < kBlocks && (bits->bitmap[block] | bits->pinned[block]) != 0;
	};
	for (size_t block = 0; block < kBlocks; ++block) {
		if (!isPinned(block))
			continue;
		const size_t start = block;
		while (isPinned(block))
			++block;
		text += (text.empty() ? "" : " ") + std::to_string(start) + "+" + std::to_string(block - start);
	}
	return text;
}

int PinTool::Run(const std::string &program, int flags, const std::vector<std::string> &arguments)
{
	std::string line;
	for (const std::string &argument : arguments)
		line += (line.empty() ? "" : " ") + argument;
	lines.push_back(line);
	Timeline::Note(line);
	EXPECT_EQ(program, "/usr/zevo/sbin/zevocachepinfiletool");
	EXPECT_EQ(flags, 0xBB);
	CountChange("tool start");
	if (before)
		if (const int result = before(line); result != 0)
			return result;
	const int result = Change(arguments);
	CountChange("tool end");
	if (afterwards)
		afterwards(line);
	return result;
}

int PinTool::Change(const std::vector<std::string> &arguments)
{
	size_t sector = 0;
	size_t count = 0;
	const bool isKnown = arguments.size() == 7 && arguments[1] == "--mount-path" &&
	                     arguments[3] == "--start-sector" && arguments[5] == "--num-sectors" &&
	                     ParseNumber(arguments[4], sector) && ParseNumber(arguments[6], count) &&
	                     sector % kSectorsOfBlock == 0 && count % kSectorsOfBlock == 0 && count > 0 &&
	                     (sector + count) / kSectorsOfBlock <= kBlocks;
	if (!isKnown) {
		ADD_FAILURE() << "the pin tool does not understand: " << lines.back();
		return -2;
	}
	const size_t first = sector / kSectorsOfBlock;
	const size_t end = first + count / kSectorsOfBlock;
	const auto set = [&](uint8_t *map, uint8_t value) { std::fill(map + first, map + end, value); };
	if (arguments[0] == "--set-bitmap") {
		set(bits->bitmap, 1);
		set(bits->pinned, 1);
	} else if (arguments[0] == "--unset-bitmap") {
		set(bits->bitmap, 0);
	} else if (arguments[0] == "--unpin-range") {
		set(bits->pinned, 0);
	} else {
		ADD_FAILURE() << "the pin tool does not know " << arguments[0];
		return -2;
	}
	return 0;
}

} // namespace kit
