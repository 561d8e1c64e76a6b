#include "commands.h"

#include "devices_output.h"
#include "output.h"

#include <cstring>

#include <langinfo.h>
#include <locale.h>

namespace {

// The locale of the environment, looked at without making it that of the process.
bool IsUtf8Locale()
{
	const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
	if (locale == nullptr)
		return false;
	const bool utf8 = strcmp(nl_langinfo_l(CODESET, locale), "UTF-8") == 0;
	freelocale(locale);
	return utf8;
}

} // namespace

void Devices(bool json)
{
	const Machine machine = ExamineMachine();
	if (json)
		PrintJson(DevicesJson(machine));
	else
		Print(DevicesTree(machine, IsUtf8Locale() ? Branches::kUnicode : Branches::kAscii));
}
