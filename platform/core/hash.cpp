#include "hash.h"

#include "common/internal.h"
#include "list.h"

#include <new>

const VUNKSZHASH::Pair *VUNKSZHASH::Find(std::string_view key) const
{
	const auto found = values.find(key);
	return found == values.end() ? nullptr : &*found;
}

void VUNKSZHASH::Set(std::string_view key, std::string_view value)
{
	const auto found = values.find(key);
	if (found != values.end()) {
		found->second = std::string(value); // a copy first: the value may be a view of the old one
		return;
	}
	if (order.size() == order.capacity())
		order.reserve(2 * order.size() + 8); // before the insertion, so that the two never disagree
	order.push_back(&*values.emplace(key, value).first);
}

VUNKSZHASH *VUNKCSzHashAlloc(int cbInitial)
{
	if (cbInitial <= 0)
		return VUNKC_FAIL(nullptr, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(nullptr, [] { return new VUNKSZHASH; });
}

void VUNKCSzHashFree(VUNKSZHASH *psh)
{
	delete psh;
}

const char *VUNKCSzHashGetValue(const VUNKSZHASH *psh, const char *szKey)
{
	if (psh == nullptr || szKey == nullptr)
		return VUNKC_FAIL(nullptr, VUNKC_ERR_BAD_ARGUMENT);
	const VUNKSZHASH::Pair *pair = psh->Find(szKey);
	return pair == nullptr ? nullptr : pair->second.c_str();
}

int VUNKCSzHashSetValue(VUNKSZHASH **ppsh, const char *szKey, const char *szValue)
{
	if (ppsh == nullptr || *ppsh == nullptr || szKey == nullptr || szValue == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		(*ppsh)->Set(szKey, szValue);
		return 0;
	});
}

int VUNKCSzHashEnumKey(const VUNKSZHASH *psh, VUNKSZLIST **ppslKeys)
{
	if (psh == nullptr || ppslKeys == nullptr || *ppslKeys == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::vector<std::string> keys;
		keys.reserve(psh->InOrder().size());
		for (const VUNKSZHASH::Pair *pair : psh->InOrder())
			keys.push_back(pair->first);
		const int count = static_cast<int>(keys.size());
		vunkc::Append(**ppslKeys, std::move(keys));
		return count;
	});
}
