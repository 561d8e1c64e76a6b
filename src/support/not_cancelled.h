#ifndef SUPPORT_NOT_CANCELLED_H
#define SUPPORT_NOT_CANCELLED_H

#include <pthread.h>

// While it lives, a cancellation of the calling thread waits.
class NotCancelled {
public:
	NotCancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
	~NotCancelled() { pthread_setcancelstate(before, nullptr); }
	NotCancelled(const NotCancelled &) = delete;
	NotCancelled &operator=(const NotCancelled &) = delete;

private:
	int before = PTHREAD_CANCEL_ENABLE;
};

#endif
