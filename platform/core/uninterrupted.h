#ifndef PLATFORM_CORE_UNINTERRUPTED_H
#define PLATFORM_CORE_UNINTERRUPTED_H

#include <pthread.h>
#include <signal.h>

namespace vunkc {

/// While it lives, the calling thread takes no signal and cannot be cancelled.
class Uninterrupted {
public:
	Uninterrupted()
	{
		pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
		sigset_t all;
		sigfillset(&all);
		pthread_sigmask(SIG_SETMASK, &all, &mask);
	}
	~Uninterrupted()
	{
		pthread_sigmask(SIG_SETMASK, &mask, nullptr);
		pthread_setcancelstate(cancelState, nullptr);
	}
	Uninterrupted(const Uninterrupted &) = delete;
	Uninterrupted &operator=(const Uninterrupted &) = delete;

private:
	sigset_t mask;
	int cancelState;
};

} // namespace vunkc

#endif
