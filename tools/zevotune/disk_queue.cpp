#include "devices.h"
#include "error_text.h"

#include "support/handles.h"

#include <vunkcore/error.h>
#include <vunkcore/file.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <sstream>

#include <fcntl.h>
#include <unistd.h>

namespace {

// The kernel's answer, which is never longer than a page; nothing, with errno set, when it gives none.
std::optional<std::string> ReadAttribute(const std::string &path)
{
	const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
	char text[4096];
	const ssize_t length = file ? read(file.get(), text, sizeof(text)) : -1;
	if (length < 0)
		return std::nullopt;
	return std::string(text, static_cast<size_t>(length));
}

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
