#include "terminal.h"

#include <cstdlib>
#include <cstring>

#include <langinfo.h>
#include <locale.h>
#include <sys/ioctl.h>
#include <unistd.h>

// The locale is looked at without making it that of the process.
bool IsUtf8Locale()
{
	const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
	if (locale == nullptr)
		return false;
	const bool utf8 = strcmp(nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
	freelocale(locale);
	return utf8;
}

size_t OutputColumns()
{
	winsize size{};
	const bool told = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
	return told ? size.ws_col : 80;
}

Look OutputLook()
{
	if (isatty(STDOUT_FILENO) == 0)
		return {};
	const char *const noColour = getenv("NO_COLOR");
	return {IsLiveTerminal() && (noColour == nullptr || *noColour == '\0'), OutputColumns()};
}

bool IsLiveTerminal()
{
	const char *const kind = getenv("TERM");
	return isatty(STDOUT_FILENO) != 0 && kind != nullptr && *kind != '\0' && strcmp(kind, "dumb") != 0;
}
