#include "devices.h"
#include "error_text.h"
#include "kernel_value.h"

#include "support/handles.h"

#include <vunkcore/error.h>
#include <vunkcore/file.h>

#include <cerrno>
#include <cstring>
#include <sstream>

namespace {

// "none [mq-deadline] kyber": all that are offered, the active one in brackets. A lone "none" goes without them.
void ParseSchedulers(const std::string &text, Queue &queue)
{
	std::istringstream words(text);
	for (std::string word; words >> word;) {
		const bool active = word.size() > 2 && word.front() == '[' && word.back() == ']';
		queue.schedulers.push_back(active ? word.substr(1, word.size() - 2) : word);
		if (active)
			queue.scheduler = queue.schedulers.back();
	}
	if (queue.schedulers.size() == 1)
		queue.scheduler = queue.schedulers.front();
}

void ReadSchedulers(const std::string &path, Queue &queue)
{
	const std::optional<std::string> text = ReadAttribute(path);
	if (!text) {
		queue.schedulerError = path + " cannot be read (" + strerror(errno) + ")";
		return;
	}
	ParseSchedulers(*text, queue);
	if (queue.scheduler.empty())
		queue.schedulerError = path + " names no active scheduler";
}

// A scheduler without tunables, such as "none", has no folder for them.
void ReadTunables(const std::string &folder, Queue &queue)
{
	List names;
	ForgetErrors();
	if (names && VUNKCFileEnumDir(folder.c_str(), nullptr, names.out(), VUNKC_ENUM_REGULAR) >= 0)
		for (int i = 0; i < names.Count(); ++i)
			queue.tunables.emplace_back(names.Get(i));
	else if (VUNKCErrGet() != VUNKC_ERR_FILE_MISSING)
		queue.tunablesError = ReasonInPlace();
}

} // namespace

Queue ReadQueue(const std::string &disk)
{
	Queue queue;
	const std::string folder = "/sys/block/" + disk + "/queue";
	ReadSchedulers(folder + "/scheduler", queue);
	ReadTunables(folder + "/iosched", queue);
	return queue;
}
