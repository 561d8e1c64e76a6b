#include <vunkcore/text.h>

#include "common/internal.h"
#include "list.h"

#include <cstring>
#include <string>
#include <utility>
#include <vector>

int VUNKCStrTok(const char *szText, const char *szDelims, VUNKSZLIST **ppslTokens)
{
	if (szText == nullptr || szDelims == nullptr || ppslTokens == nullptr || *ppslTokens == nullptr)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return VUNKC_GUARD(-1, [&] {
		std::vector<std::string> tokens;
		for (const char *rest = szText + strspn(szText, szDelims); *rest != '\0';
		     rest += strspn(rest, szDelims)) {
			const size_t length = strcspn(rest, szDelims);
			tokens.emplace_back(rest, length);
			rest += length;
		}
		const int count = static_cast<int>(tokens.size());
		vunkc::Append(**ppslTokens, std::move(tokens));
		return count;
	});
}
