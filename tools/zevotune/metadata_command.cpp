#include "commands.h"

#include "metadata_output.h"
#include "output.h"
#include "terminal.h"

void Metadata(const std::string &volume, bool list, bool json)
{
	const MetadataLayout layout = ExamineMetadata(volume);
	if (json)
		PrintJson(MetadataJson(layout));
	else
		Print(MetadataText(layout, {OutputColumns(), IsUtf8Locale() ? Shades::kUnicode : Shades::kAscii},
		                   list));
}
