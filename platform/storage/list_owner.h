#ifndef PLATFORM_STORAGE_LIST_OWNER_H
#define PLATFORM_STORAGE_LIST_OWNER_H

#include <vunkcore/list.h>

#include <memory>

namespace zevos {

struct FreeList {
	void operator()(VUNKSZLIST *list) const { VUNKCSzListFree(list); }
};
using ListOwner = std::unique_ptr<VUNKSZLIST, FreeList>;

} // namespace zevos

#endif
