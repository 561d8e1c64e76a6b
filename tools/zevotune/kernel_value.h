#ifndef ZEVOTUNE_KERNEL_VALUE_H
#define ZEVOTUNE_KERNEL_VALUE_H

// What the kernel's parameters and attributes hold.

#include <optional>
#include <string>
#include <string_view>

/// What a file of the kernel's says; nothing, with errno set, when it cannot be read.
std::optional<std::string> ReadAttribute(const std::string &path);

/// A value, or the reason why there is none.
struct KernelValue {
	std::optional<std::string> text;
	std::string why; // empty with a value

	bool operator==(const KernelValue &) const = default;
};

/// The value as one line, as it would be written; of a file that offers several the one that is selected.
KernelValue ReadKernelValue(const std::string &path);

/// The file of a kernel parameter, whose name is written with dots or with slashes.
std::string SysctlPath(std::string_view name);

/// The name of a kernel parameter, with dots, by the path of its file.
std::string SysctlName(const std::string &path);

bool IsSysctlPath(std::string_view path);
bool IsSchedulerPath(std::string_view path);

/// The file of the scheduler that a tunable belongs to, "/sys/block/sda/queue/scheduler" of "/sys/block/sda/queue/iosched/quantum";
/// "" for other paths.
std::string SchedulerPathOf(const std::string &tunablePath);

/// Whether both are the same when they are written to the kernel's file at a path: blanks do not count, nor does the notation
/// of numbers where the file takes several.
bool IsSameValue(const std::string &path, std::string_view a, std::string_view b);

/// The parameter that the kernel changes when this one is written, as both are one setting: bytes of a ratio, which writing the
/// ratio makes 0, microseconds of milliseconds, and the other way round; "" for others. By path.
std::string OtherOfPair(const std::string &path);

#endif
