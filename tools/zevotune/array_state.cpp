#include "devices.h"
#include "kernel_value.h"
#include "numbers.h"

#include <algorithm>

namespace {

// "/dev/cciss/c0d0" is "cciss!c0d0".
std::string KernelName(const std::string &device)
{
	std::string name = device.substr(sizeof("/dev/") - 1);
	std::replace(name.begin(), name.end(), '/', '!');
	return name;
}

// "faulty", or several such words with commas.
bool HasFailed(const std::string &folder, const ArrayMember &member)
{
	const KernelValue state = ReadKernelValue(folder + "dev-" + KernelName(member.device) + "/state");
	return state.text && (',' + *state.text + ',').find(",faulty,") != std::string::npos;
}

// Levels without redundancy do not count what they lack.
unsigned Lacking(const std::string &folder, const Array &array)
{
	const auto working = static_cast<unsigned>(std::count_if(
		array.members.begin(), array.members.end(), [](const ArrayMember &member) { return !member.failed; }));
	const unsigned seen = array.diskCount - std::min(working, array.diskCount);
	const KernelValue counted = ReadKernelValue(folder + "degraded");
	if (!counted.text || !IsWholeNumber(*counted.text))
		return seen;
	const auto degraded = static_cast<unsigned long long>(IntegerOf(*counted.text));
	return static_cast<unsigned>(std::clamp<unsigned long long>(degraded, seen, array.diskCount));
}

} // namespace

void ReadArrayState(Array &array)
{
	const std::string folder = "/sys/block/" + KernelName(array.device) + "/md/";
	for (ArrayMember &member : array.members)
		member.failed = HasFailed(folder, member);
	array.lacking = Lacking(folder, array);
	array.broken = ReadKernelValue(folder + "array_state").text == "broken";
}
