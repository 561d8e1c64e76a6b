#ifndef VUNKCORE_PROCESS_H
#define VUNKCORE_PROCESS_H

/**
 * @file
 * Running programs, and children that nobody waits for.
 *
 * Programs are run without a shell and without copying the caller's memory, whatever its size. The program starts with
 * default signal dispositions, no blocked signals, standard input and output on /dev/null, the caller's standard error
 * (or /dev/null where that is closed), the caller's environment and working directory, and no other descriptor.
 *
 * The caller's thread waits until the program has ended, with its signals blocked until then. How the host program
 * treats SIGCHLD makes no difference: it may ignore it, or collect children with waitpid(-1) in another thread; it
 * sees neither the program nor anything else as a child of its own.
 */

#include <sys/types.h>
#include <vunkcore/types.h>

VUNKC_BEGIN_DECLS

/**
 * Runs a program with up to four arguments and waits for it.
 *
 * @param szProgram  path of the program; it is not searched for.
 * @param szArg1     first argument; the arguments end at the first null one.
 * @return 0 when it ran and exited with status 0. Otherwise -1: VUNKC_ERR_EXEC when it could not be run,
 *         VUNKC_ERR_EXIT_STATUS when it exited with another status or was killed.
 */
VUNKC_API int VUNKCExec(const char *szProgram, const char *szArg1, const char *szArg2, const char *szArg3,
                        const char *szArg4);

/**
 * Runs a program with any number of arguments, of which the last one must be followed by (char *)NULL.
 *
 * @param szProgram  path of the program; it is not searched for.
 * @param iFlags     0xBB, the one set of options there is: run to completion as described above. Other values are
 *                   refused.
 * @return 0 when it ran and exited with status 0; -n when it exited with status n; -(128 + s) when signal s killed it
 *         (both VUNKC_ERR_EXIT_STATUS); -1 when it could not be run (VUNKC_ERR_EXEC) or an argument is wrong.
 */
VUNKC_API int VUNKCExecl(const char *szProgram, int iFlags, ...) __attribute__((sentinel));

/**
 * Forks a child that nobody waits for: the caller never sees it end, and it leaves no zombie where it is adopted by a
 * process that collects its children, as init does.
 *
 * The child is a copy of the calling thread. It is a session of its own without a terminal, has "/" as working directory
 * (so that it keeps no volume from being unmounted), /dev/null as standard input, output and error, no other descriptor,
 * default signal dispositions, no blocked signals and a syslog connection that is opened afresh at its first line. It
 * cannot be cancelled (pthread_cancel). It must end with _exit: anything else would run the host's exit handlers and write
 * once more what the host's streams hold.
 *
 * The host may have other threads, whatever they do. Of the locks that these hold at the moment of the fork, the child
 * never meets those of the allocator, of the list of streams and of the dynamic loader, which fork() looks after, nor
 * those of syslog(), of the time zone and of translated messages (strerror), which this function does. Locks of others,
 * and those of single streams, stay closed in the child when they were. Handlers that the host has registered with
 * pthread_atfork run, as with any fork(), with all signals blocked.
 *
 * To find these locks open takes as many forks as it takes: one in most hosts, dozens where several threads do nothing
 * but log. The call gives up after some ten seconds, and not before several attempts. It waits for syslog() as a line to
 * log would, and during all that the calling thread takes no signal and cannot be cancelled.
 *
 * Another child of the caller, which makes this one, lives for a moment and ends with status 0; there is one for each
 * attempt. It is collected before the call returns, unless the host collects it first; the host may see SIGCHLD for it.
 *
 * @return in the child 0; in the caller the child's process id, or -1 on failure (VUNKC_ERR_FORK, with errno EDEADLK when
 *         the locks never were open), when there is no child.
 */
VUNKC_API pid_t VUNKCProcForkChildNoWait(void);

/** @return 1 when there is a process of this id that has not ended; 0 when not. A zombie has ended. Ids below 1 give 0. */
VUNKC_API int VUNKCProcAlive(pid_t pid);

VUNKC_END_DECLS

#endif
