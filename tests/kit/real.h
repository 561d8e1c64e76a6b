#ifndef TESTS_KIT_REAL_H
#define TESTS_KIT_REAL_H

#include <cstdlib>

#include <dlfcn.h>

namespace kit {

/// The function that would be called if the program, or the preloaded library, that asks did not define it.
template <class Function>
Function *Real(const char *name)
{
	void *symbol = dlsym(RTLD_NEXT, name);
	if (symbol == nullptr)
		abort();
	return reinterpret_cast<Function *>(symbol);
}

} // namespace kit

#endif
