#ifndef PLATFORM_CORE_PIDFD_H
#define PLATFORM_CORE_PIDFD_H

#include <fcntl.h>
#include <signal.h>

// glibc 2.36 declares these functions without saying that they are C.
extern "C" {
#include <sys/pidfd.h>
}

#endif
