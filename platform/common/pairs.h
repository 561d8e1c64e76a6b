#ifndef PLATFORM_COMMON_PAIRS_H
#define PLATFORM_COMMON_PAIRS_H

#include <vunkcore/hash.h>
#include <vunkcore/pair_file.h>

#include <memory>
#include <new>

namespace vunkc {

/// The pairs of a pair file.
class Pairs {
public:
	Pairs() : hash(VUNKCSzHashAlloc(1024))
	{
		if (hash == nullptr)
			throw std::bad_alloc();
	}

	/// Adds those of a file. False on failure, with the error set.
	bool Read(const char *path)
	{
		return Change([&](VUNKSZHASH **ppsh) { return VUNKCFileGetPair(path, ppsh); });
	}

	/// False on failure, with the error set.
	bool Write(const char *path) const { return VUNKCFileSetPair(path, hash.get(), 0) == 0; }

	/// Null when there is no such key.
	const char *Get(const char *key) const { return VUNKCSzHashGetValue(hash.get(), key); }

	/// False on failure, with the error set.
	bool Set(const char *key, const char *value)
	{
		return Change([&](VUNKSZHASH **ppsh) { return VUNKCSzHashSetValue(ppsh, key, value); });
	}

private:
	struct Free {
		void operator()(VUNKSZHASH *psh) const { VUNKCSzHashFree(psh); }
	};

	/// A call that may move the hash.
	template <class Call>
	bool Change(Call &&call)
	{
		VUNKSZHASH *moved = hash.release();
		const int result = call(&moved);
		hash.reset(moved);
		return result >= 0;
	}

	std::unique_ptr<VUNKSZHASH, Free> hash;
};

} // namespace vunkc

#endif
