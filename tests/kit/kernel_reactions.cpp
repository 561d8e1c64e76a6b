#include "kit/kernel_reactions.h"

#include "kit/files.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string_view>

namespace kit {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSysctl = "/sbin/sysctl -we ";

bool IsScheduler(const std::string &path)
{
	return path.ends_with("/queue/scheduler");
}

// "none [mq-deadline] bfq" with another one in brackets.
std::string Select(const std::string &offered, const std::string &scheduler)
{
	std::istringstream words(offered);
	std::string text;
	for (std::string word; words >> word;) {
		if (word.front() == '[')
			word = word.substr(1, word.size() - 2);
		text += (text.empty() ? "" : " ") + (word == scheduler ? '[' + word + ']' : word);
	}
	return text + '\n';
}

std::string OtherOf(const std::string &parameter)
{
	const std::map<std::string, std::string> pairs = {{"vm.dirty_ratio", "dirty_bytes"},
	                                                  {"vm.dirty_bytes", "dirty_ratio"},
	                                                  {"vm.dirty_background_ratio", "dirty_background_bytes"},
	                                                  {"vm.dirty_background_bytes", "dirty_background_ratio"}};
	const auto found = pairs.find(parameter);
	return found == pairs.end() ? "" : "/proc/sys/vm/" + found->second;
}

// A tunable of one scheduler that is shown in two units.
void SetSliceIdle(const fs::path &tunables, long microseconds)
{
	WriteFile(tunables / "slice_idle", std::to_string(microseconds / 1000) + '\n');
	if (fs::exists(tunables / "slice_idle_us"))
		WriteFile(tunables / "slice_idle_us", std::to_string(microseconds) + '\n');
}

void SetTunable(const fs::path &path, const std::string &value)
{
	const fs::path folder = path.parent_path();
	WriteFile(path, value + '\n');
	if (path.filename() == "strict_guarantees" && value != "0")
		SetSliceIdle(folder, 8000);
	if (path.filename() == "slice_idle")
		SetSliceIdle(folder, strtol(value.c_str(), nullptr, 10) * 1000);
	if (path.filename() == "slice_idle_us")
		SetSliceIdle(folder, strtol(value.c_str(), nullptr, 10));
}

} // namespace

KernelReactions::KernelReactions()
{
	timeline.before = [this](const std::string &line) { Before(line); };
	timeline.after = [this](const std::string &line) { After(line); };
}

const std::map<std::string, std::string> &KernelReactions::Tunables(const std::string &scheduler)
{
	static const std::map<std::string, std::map<std::string, std::string>> all = {
		{"mq-deadline",
	         {{"async_depth", "256"},
	          {"fifo_batch", "16"},
	          {"front_merges", "1"},
	          {"prio_aging_expire", "10000"},
	          {"read_expire", "500"},
	          {"write_expire", "5000"},
	          {"writes_starved", "2"}}},
		{"kyber", {{"read_lat_nsec", "2000000"}, {"write_lat_nsec", "10000000"}}},
		{"bfq",
	         {{"back_seek_max", "16384"},
	          {"back_seek_penalty", "2"},
	          {"fifo_expire_async", "250"},
	          {"fifo_expire_sync", "125"},
	          {"low_latency", "1"},
	          {"max_budget", "0"},
	          {"slice_idle", "8"},
	          {"slice_idle_us", "8000"},
	          {"strict_guarantees", "0"},
	          {"timeout_sync", "124"}}},
	};
	static const std::map<std::string, std::string> none;
	const auto found = all.find(scheduler);
	return found == all.end() ? none : found->second;
}

void KernelReactions::Before(const std::string &line)
{
	const std::string path = line.substr(0, line.find(": "));
	if (IsScheduler(path))
		schedulers = ReadFile(path);
}

void KernelReactions::After(const std::string &line)
{
	if (line.starts_with(kSysctl)) {
		std::string assignment = line.substr(kSysctl.size());
		std::replace(assignment.begin(), assignment.end(), '/', '.');
		const size_t sign = assignment.find('=');
		const std::string other = OtherOf(assignment.substr(0, sign));
		if (!other.empty() && assignment.substr(sign) != "=0")
			WriteFile(other, "0\n");
		return;
	}
	const size_t separator = line.find(": ");
	const std::string path = line.substr(0, separator);
	const std::string value = line.substr(separator + 2);
	if (!IsScheduler(path)) {
		SetTunable(path, value);
		return;
	}
	WriteFile(path, Select(schedulers, value));
	const bool isAnother = schedulers.find('[' + value + ']') == std::string::npos;
	const fs::path queue = fs::path(path).parent_path();
	const fs::path tunables = queue / "iosched";
	if (!isAnother)
		return;
	if (fs::exists(queue / "nr_requests"))
		WriteFile(queue / "nr_requests", "256\n");
	fs::remove_all(tunables);
	for (const auto &[name, standard] : Tunables(value))
		WriteFile(tunables / name, standard + '\n');
}

} // namespace kit
