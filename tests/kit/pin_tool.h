#ifndef TESTS_KIT_PIN_TOOL_H
#define TESTS_KIT_PIN_TOOL_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kit {

/// A pin tool that runs inside of VUNKCExecl and does to a bitmap what the real one does to the SSD cache. The bitmap is in
/// memory that children share, so it shows what a process that was killed has left. It refuses what it does not know.
///
/// Its start and its end count as calls that change something (nth_call.h): a process killed at the start has not run it,
/// one killed at the end has. It fails as a platform call does when a Fault names "VUNKCExecl". Objects do not nest.
class PinTool {
public:
	/// Blocks of 4096 bytes from the start of the device.
	static constexpr size_t kBlocks = 1 << 16;
	static constexpr unsigned kSectorsOfBlock = 8;

	PinTool();
	~PinTool();
	PinTool(const PinTool &) = delete;
	PinTool &operator=(const PinTool &) = delete;

	/// What is marked to be pinned, or is in the cache and pinned: ranges in blocks, "16+1 256+64".
	std::string Pinned() const;
	void Clear();

	/// The command lines so far, of this process: "--set-bitmap --mount-path /volume1 --start-sector 128 --num-sectors 8".
	std::vector<std::string> lines;
	/// Runs before each run of the tool; what it returns, unless 0, is the result, and the tool does nothing.
	std::function<int(const std::string &line)> before;
	/// Runs after each run of the tool.
	std::function<void(const std::string &line)> afterwards;

	/// What VUNKCExecl does while an object lives.
	int Run(const std::string &program, int flags, const std::vector<std::string> &arguments);
	static PinTool *Current();

private:
	struct Bits {
		uint8_t bitmap[kBlocks];
		uint8_t pinned[kBlocks];
	};

	int Change(const std::vector<std::string> &arguments);

	Bits *bits;
};

} // namespace kit

#endif
