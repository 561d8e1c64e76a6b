#ifndef UTILS_SYSTEM_ACCESS_H
#define UTILS_SYSTEM_ACCESS_H

#include <zevotuned/system_access.h>

// 1: a directory, or one on a file system that has lost its connection; 0: missing; -1: something else, or null.
int CheckDirExist(const char *szPath);

// Writes one kernel parameter, given as key=value, with /sbin/sysctl. A key that the kernel does not know is passed over
// by sysctl itself. 0 or -1.
int TuneSysctlRun(const char *szSysctl);

#endif
