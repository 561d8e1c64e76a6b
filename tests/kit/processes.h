#ifndef TESTS_KIT_PROCESSES_H
#define TESTS_KIT_PROCESSES_H

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kit {

/// What goes with making children and ending processes: VUNKCProcForkChildNoWait, VUNKCProcAlive, VUNKCProcAliveByPidFile,
/// VUNKCProcSignalByPidFile and sleep. While no object lives, all of them do what they do.
///
/// While the object lives, Faults (faults.h) and NthCall can name the four of the core library, nobody sleeps, and this is
/// written down, in order, also where it fails:
///
///   fork
///   signal 15 /run/x.pid            ("signal 15 /run/x.pid: failed" where nobody got it)
///   alive? /run/x.pid
///   sleep 1
///
/// Objects do not nest.
class Processes {
public:
	Processes();
	~Processes();
	Processes(const Processes &) = delete;
	Processes &operator=(const Processes &) = delete;

	std::vector<std::string> lines;

	/// Whether the process that a pid file names is alive; signals are not sent then. Null: the core library does both.
	std::function<bool()> isAlive;
	/// Takes the place of sleeping: what it returns is left of the seconds, as when a signal has come.
	std::function<unsigned(unsigned seconds)> sleep;

	/// Whether a child is forked as the core library does it. Otherwise it is an ordinary child, with this process's
	/// descriptors.
	bool forksForReal = false;
	/// Waits for the child, whose lines the journal then has as well. Returns the wait status; -1 when there is no child.
	int WaitForChild();

	/// What VUNKCProcForkChildNoWait does while an object lives.
	pid_t Fork();

private:
	pid_t child = -1;
};

/// A child that runs a body to its end and then, unless that has ended it, waits to be killed. It is there when the
/// constructor returns, its body done.
class ChildProcess {
public:
	explicit ChildProcess(const std::function<void()> &body = [] {});
	/// Kills it.
	~ChildProcess();
	ChildProcess(const ChildProcess &) = delete;
	ChildProcess &operator=(const ChildProcess &) = delete;

	pid_t Pid() const { return pid; }
	/// Waits until it has ended, and leaves the zombie. Throws when it does not for half a minute.
	void WaitForEnd() const;
	/// Kills it, and leaves the zombie.
	void Kill() const;
	/// Collects it when it has ended, and returns the signal that has ended it; 0 while it is there.
	int EndedBy();

private:
	pid_t pid;
	int signal = 0;
};

} // namespace kit

#endif
