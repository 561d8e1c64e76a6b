#include "list.h"

#include "common/internal.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

VUNKSZLIST *VUNKCSzListAlloc(int cbInitial)
{
	if (cbInitial <= 0)
		return VUNKC_FAIL(nullptr, VUNKC_ERR_BAD_ARGUMENT);
	// The hint is in bytes of text, the vector counts strings: what it would save is not worth guessing a ratio.
	return VUNKC_GUARD(nullptr, [] { return new vunkc::StringList; });
}

void VUNKCSzListFree(VUNKSZLIST *psl)
{
	delete static_cast<vunkc::StringList *>(psl);
}

const char *VUNKCSzListGet(const VUNKSZLIST *psl, int iIndex)
{
	if (psl == nullptr || iIndex < 0 || iIndex >= psl->nItem)
		return VUNKC_FAIL(nullptr, VUNKC_ERR_BAD_ARGUMENT);
	return static_cast<const vunkc::StringList *>(psl)->strings[static_cast<size_t>(iIndex)].c_str();
}

int VUNKCSzListPush(VUNKSZLIST **ppsl, const char *sz)
{
	if (ppsl == nullptr || *ppsl == nullptr || sz == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] { return vunkc::Append(**ppsl, {sz}); });
}

namespace vunkc {

int Append(VUNKSZLIST &list, std::vector<std::string> &&strings)
{
	StringList &self = static_cast<StringList &>(list);
	if (strings.size() > static_cast<size_t>(std::numeric_limits<int>::max() - self.nItem))
		throw std::bad_alloc();
	// Room first: what follows cannot fail, so the list is either as it was or complete.
	if (self.strings.capacity() < self.strings.size() + strings.size())
		self.strings.reserve(std::max(2 * self.strings.size(), self.strings.size() + strings.size()));
	for (std::string &string : strings)
		self.strings.push_back(std::move(string));
	self.nItem = static_cast<int>(self.strings.size());
	return self.nItem;
}

} // namespace vunkc
