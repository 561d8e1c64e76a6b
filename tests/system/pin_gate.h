#ifndef TESTS_SYSTEM_PIN_GATE_H
#define TESTS_SYSTEM_PIN_GATE_H

// What recording_pin_tool.sh writes down, and how it is held up.

#include "system/cached_volumes.h"

#include <utility>

#include <poll.h>
#include <sys/stat.h>

namespace cached {

inline std::string ToolLines()
{
	const std::string path = std::string(kToolFolder) + "/lines";
	return std::filesystem::exists(path) ? kit::ReadFile(path) : "";
}

inline size_t ToolRuns()
{
	const std::string lines = ToolLines();
	return static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n'));
}

inline void ForgetToolRuns()
{
	std::filesystem::remove(std::string(kToolFolder) + "/lines");
}

/// The ranges of a volume that the tool was asked to do something to since its runs were last forgotten.
inline Ranges ToolRanges(const Volume &volume, const std::string &action)
{
	std::istringstream lines(ToolLines());
	const std::regex pattern(action + " --mount-path " + volume.path +
	                         " --start-sector (\\d+) --num-sectors (\\d+)");
	Ranges ranges;
	std::smatch match;
	for (std::string line; std::getline(lines, line);)
		if (std::regex_match(line, match, pattern))
			ranges.push_back({std::stoull(match[1]) * 512, std::stoull(match[2]) * 512});
	return ranges;
}

/// Lets one run of the tool wait: the nth since its runs were last forgotten. It must be let go.
class Gate {
public:
	explicit Gate(size_t run = 1)
		: started(std::string(kToolFolder) + "/started." + std::to_string(run)),
		  gate(std::string(kToolFolder) + "/gate." + std::to_string(run))
	{
		for (const std::string &pipe : {started, gate})
			if (mkfifo(pipe.c_str(), 0600) != 0)
				throw std::runtime_error("no pipe");
		fd = open(started.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
	}
	~Gate()
	{
		if (fd >= 0)
			LetGo();
		if (opened >= 0)
			Remove();
	}
	Gate(const Gate &) = delete;
	Gate &operator=(const Gate &) = delete;

	void WaitForTool() const
	{
		pollfd wait = {fd, POLLIN, 0};
		ASSERT_EQ(poll(&wait, 1, 60000), 1) << "the tool was not run";
	}
	void LetGo()
	{
		std::filesystem::remove(started); // another pass's run of this number does not wait
		close(std::exchange(fd, -1));
		opened = open(gate.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
		EXPECT_EQ(write(opened, "\n", 1), 1);
	}
	/// Once the tool has ended.
	void Remove()
	{
		close(std::exchange(opened, -1));
		std::filesystem::remove(gate);
	}

private:
	const std::string started;
	const std::string gate;
	int fd = -1;
	int opened = -1;
};

} // namespace cached

#endif
