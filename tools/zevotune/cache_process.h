#ifndef ZEVOTUNE_CACHE_PROCESS_H
#define ZEVOTUNE_CACHE_PROCESS_H

// A call of the library in a process of its own, which goes on when the tool is ended.

#include "support/handles.h"

#include <functional>
#include <optional>
#include <string>

#include <sys/types.h>

struct ProcessEnd {
	enum class Kind {
		kDone,
		kBusy, // another engine works on the volume, and the call has done nothing but to set the switch
		kFailed,
		kKilled
	};
	Kind kind;
	int signal;         // that has killed it
	std::string reason; // why it failed
};

class CacheProcess {
public:
	/// @param volume  the volume's path.
	/// @param call    0 or -1, with the library's errors. Runs in a session of its own, without the tool's descriptors.
	/// It goes on when this object is gone. Throws Failure when no process can be made. The tool must have no threads.
	CacheProcess(const std::string &volume, const std::function<int()> &call);
	pid_t Id() const { return id; }

	/// Does not wait; nothing while it runs. To be asked until it has ended.
	std::optional<ProcessEnd> End();

private:
	ProcessEnd Understand(int status) const;

	pid_t id = -1;
	FileDescriptor report{-1}; // what it has to say of its failure
};

#endif
