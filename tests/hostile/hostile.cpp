// A platform at its worst, to be preloaded: a hash and a list that move at every change, and whose old memory is gone at
// once. Whoever keeps a pointer across a call that may move the object is killed by the next use of it.
//
// Everything else is the real core library's; the functions that take a hash or a list get one of the real library's.

#include "kit/real.h"

#include <vunkcore/vunkcore.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/mman.h>

namespace {

#define REAL(function) kit::Real<decltype(function)>(#function)

using Strings = std::vector<std::string>;

/// What both objects are: a count, which VUNKSZLIST shows, and the strings one after the other, on pages of their own.
struct Block {
	int count;
	size_t size; // of the pages
	char text[];
};

Block *Make(const Strings &strings, int count)
{
	size_t size = sizeof(Block);
	for (const std::string &string : strings)
		size += string.size() + 1;
	void *pages = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	if (pages == MAP_FAILED)
		abort();
	Block *block = static_cast<Block *>(pages);
	block->count = count;
	block->size = size;
	char *next = block->text;
	for (const std::string &string : strings) {
		memcpy(next, string.c_str(), string.size() + 1);
		next += string.size() + 1;
	}
	return block;
}

/// The addresses stay taken, without memory behind them, so that nothing else comes to lie there.
void Destroy(Block *block)
{
	if (block == nullptr)
		return;
	const size_t size = block->size;
	if (mmap(block, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE, -1, 0) == MAP_FAILED)
		abort();
}

const char *At(const Block *block, int index)
{
	const char *text = block->text;
	for (; index > 0; --index)
		text += strlen(text) + 1;
	return text;
}

Strings Content(const Block *block, int strings)
{
	Strings content;
	const char *text = block->text;
	for (int i = 0; i < strings; ++i) {
		content.emplace_back(text);
		text += content.back().size() + 1;
	}
	return content;
}

Block *Of(VUNKSZLIST *psl)
{
	return reinterpret_cast<Block *>(psl);
}
const Block *Of(const VUNKSZLIST *psl)
{
	return reinterpret_cast<const Block *>(psl);
}
Block *Of(VUNKSZHASH *psh)
{
	return reinterpret_cast<Block *>(psh);
}
const Block *Of(const VUNKSZHASH *psh)
{
	return reinterpret_cast<const Block *>(psh);
}

/// Puts a new object in the place of the old one.
template <class Object>
void Move(Object **object, const Strings &strings, int count)
{
	Block *old = Of(*object);
	*object = reinterpret_cast<Object *>(Make(strings, count));
	Destroy(old);
}

class RealList {
public:
	RealList() : list(REAL(VUNKCSzListAlloc)(64)) {}
	~RealList() { REAL(VUNKCSzListFree)(list); }
	VUNKSZLIST **Out() { return &list; }
	void AppendTo(VUNKSZLIST **ppsl) const
	{
		Strings strings = Content(Of(*ppsl), (*ppsl)->nItem);
		for (int i = 0; i < list->nItem; ++i)
			strings.emplace_back(REAL(VUNKCSzListGet)(list, i));
		Move(ppsl, strings, static_cast<int>(strings.size()));
	}

private:
	VUNKSZLIST *list;
};

class RealHash {
public:
	explicit RealHash(const VUNKSZHASH *from) : hash(REAL(VUNKCSzHashAlloc)(64))
	{
		const Strings strings = Content(Of(from), 2 * Of(from)->count);
		for (size_t i = 0; i < strings.size(); i += 2)
			REAL(VUNKCSzHashSetValue)(&hash, strings[i].c_str(), strings[i + 1].c_str());
	}
	~RealHash() { REAL(VUNKCSzHashFree)(hash); }
	VUNKSZHASH *Get() const { return hash; }
	VUNKSZHASH **Out() { return &hash; }
	void MoveTo(VUNKSZHASH **ppsh) const
	{
		VUNKSZLIST *keys = REAL(VUNKCSzListAlloc)(64);
		REAL(VUNKCSzHashEnumKey)(hash, &keys);
		Strings strings;
		for (int i = 0; i < keys->nItem; ++i) {
			strings.emplace_back(REAL(VUNKCSzListGet)(keys, i));
			strings.emplace_back(REAL(VUNKCSzHashGetValue)(hash, strings.back().c_str()));
		}
		const int count = keys->nItem;
		REAL(VUNKCSzListFree)(keys);
		Move(ppsh, strings, count);
	}

private:
	VUNKSZHASH *hash;
};

template <class Object>
bool IsNull(Object **object)
{
	return object == nullptr || *object == nullptr;
}

} // namespace

extern "C" {

VUNKC_API VUNKSZLIST *VUNKCSzListAlloc(int)
{
	return reinterpret_cast<VUNKSZLIST *>(Make({}, 0));
}

VUNKC_API void VUNKCSzListFree(VUNKSZLIST *psl)
{
	Destroy(Of(psl));
}

VUNKC_API const char *VUNKCSzListGet(const VUNKSZLIST *psl, int iIndex)
{
	return psl == nullptr || iIndex < 0 || iIndex >= psl->nItem ? nullptr : At(Of(psl), iIndex);
}

VUNKC_API int VUNKCSzListPush(VUNKSZLIST **ppsl, const char *sz)
{
	if (IsNull(ppsl) || sz == nullptr)
		return REAL(VUNKCSzListPush)(nullptr, nullptr);
	Strings strings = Content(Of(*ppsl), (*ppsl)->nItem);
	strings.emplace_back(sz);
	Move(ppsl, strings, static_cast<int>(strings.size()));
	return (*ppsl)->nItem;
}

VUNKC_API VUNKSZHASH *VUNKCSzHashAlloc(int)
{
	return reinterpret_cast<VUNKSZHASH *>(Make({}, 0));
}

VUNKC_API void VUNKCSzHashFree(VUNKSZHASH *psh)
{
	Destroy(Of(psh));
}

VUNKC_API const char *VUNKCSzHashGetValue(const VUNKSZHASH *psh, const char *szKey)
{
	if (psh == nullptr || szKey == nullptr)
		return nullptr;
	for (int i = 0; i < Of(psh)->count; ++i)
		if (strcmp(At(Of(psh), 2 * i), szKey) == 0)
			return At(Of(psh), 2 * i + 1);
	return nullptr;
}

VUNKC_API int VUNKCSzHashSetValue(VUNKSZHASH **ppsh, const char *szKey, const char *szValue)
{
	if (IsNull(ppsh) || szKey == nullptr || szValue == nullptr)
		return REAL(VUNKCSzHashSetValue)(nullptr, nullptr, nullptr);
	RealHash real(*ppsh);
	if (REAL(VUNKCSzHashSetValue)(real.Out(), szKey, szValue) < 0)
		return -1;
	real.MoveTo(ppsh);
	return 0;
}

VUNKC_API int VUNKCSzHashEnumKey(const VUNKSZHASH *psh, VUNKSZLIST **ppslKeys)
{
	if (psh == nullptr || IsNull(ppslKeys))
		return REAL(VUNKCSzHashEnumKey)(nullptr, nullptr);
	const RealHash real(psh);
	RealList list;
	const int result = REAL(VUNKCSzHashEnumKey)(real.Get(), list.Out());
	list.AppendTo(ppslKeys);
	return result;
}

VUNKC_API int VUNKCFileGetPair(const char *szPath, VUNKSZHASH **ppsh)
{
	if (IsNull(ppsh))
		return REAL(VUNKCFileGetPair)(szPath, nullptr);
	RealHash real(*ppsh);
	const int result = REAL(VUNKCFileGetPair)(szPath, real.Out());
	real.MoveTo(ppsh);
	return result;
}

VUNKC_API int VUNKCFileSetPair(const char *szPath, const VUNKSZHASH *psh, int iFlags)
{
	return psh == nullptr ? REAL(VUNKCFileSetPair)(szPath, psh, iFlags)
	                      : REAL(VUNKCFileSetPair)(szPath, RealHash(psh).Get(), iFlags);
}

VUNKC_API int VUNKCFileGetSection(const char *szPath, const char *szSection, VUNKSZHASH **ppsh)
{
	if (IsNull(ppsh))
		return REAL(VUNKCFileGetSection)(szPath, szSection, nullptr);
	RealHash real(*ppsh);
	const int result = REAL(VUNKCFileGetSection)(szPath, szSection, real.Out());
	real.MoveTo(ppsh);
	return result;
}

VUNKC_API int VUNKCFileAddSection(const char *szPath, const char *szSection, const VUNKSZHASH *psh)
{
	return psh == nullptr ? REAL(VUNKCFileAddSection)(szPath, szSection, psh)
	                      : REAL(VUNKCFileAddSection)(szPath, szSection, RealHash(psh).Get());
}

VUNKC_API int VUNKCIFileModifySection(const char *szPath, const char *szSection, const char *szNewName,
                                      const VUNKSZHASH *psh, int fReplace, int iFlags)
{
	if (psh == nullptr)
		return REAL(VUNKCIFileModifySection)(szPath, szSection, szNewName, psh, fReplace, iFlags);
	return REAL(VUNKCIFileModifySection)(szPath, szSection, szNewName, RealHash(psh).Get(), fReplace, iFlags);
}

VUNKC_API int VUNKCFileEnumSection(const char *szPath, VUNKSZLIST **ppsl)
{
	if (IsNull(ppsl))
		return REAL(VUNKCFileEnumSection)(szPath, nullptr);
	RealList list;
	const int result = REAL(VUNKCFileEnumSection)(szPath, list.Out());
	list.AppendTo(ppsl);
	return result;
}

VUNKC_API int VUNKCFileEnumDir(const char *szDir, const char *szFilter, VUNKSZLIST **ppsl, int iFlags)
{
	if (IsNull(ppsl))
		return REAL(VUNKCFileEnumDir)(szDir, szFilter, nullptr, iFlags);
	RealList list;
	const int result = REAL(VUNKCFileEnumDir)(szDir, szFilter, list.Out(), iFlags);
	list.AppendTo(ppsl);
	return result;
}

VUNKC_API int VUNKCStrTok(const char *szText, const char *szDelims, VUNKSZLIST **ppsl)
{
	if (IsNull(ppsl))
		return REAL(VUNKCStrTok)(szText, szDelims, nullptr);
	RealList list;
	const int result = REAL(VUNKCStrTok)(szText, szDelims, list.Out());
	list.AppendTo(ppsl);
	return result;
}

} // extern "C"
