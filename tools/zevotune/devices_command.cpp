#include "commands.h"

#include "devices_output.h"
#include "output.h"
#include "terminal.h"

void Devices(bool json)
{
	const Machine machine = ExamineMachine();
	if (json)
		PrintJson(DevicesJson(machine));
	else
		Print(DevicesTree(machine, IsUtf8Locale() ? Branches::kUnicode : Branches::kAscii));
}
