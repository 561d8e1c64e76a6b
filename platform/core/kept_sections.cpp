#include "kept_sections.h"

#include "common/descriptor.h"
#include "common/text_read.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <time.h>

namespace vunkc {
namespace {

// A smaller file is read in less time than all this is worth.
constexpr size_t kLeast = size_t{64} << 10;
constexpr size_t kMost = size_t{16} << 20;

constinit std::atomic<KeptSections *> current = nullptr;

long long Nanoseconds(const timespec &time)
{
	return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

} // namespace

std::unique_ptr<KeptSections> KeptSections::Take(std::string_view path)
{
	std::unique_ptr<KeptSections> kept(current.exchange(nullptr));
	if (kept && kept->path != path)
		kept.reset();
	return kept;
}

void KeptSections::PutBack(std::unique_ptr<KeptSections> kept)
{
	kept.reset(current.exchange(kept.release()));
}

bool KeptSections::Stamp::operator==(const Stamp &other) const
{
	const auto all = [](const Stamp &one) {
		return std::tuple(one.device, one.inode, one.size, Nanoseconds(one.modified), Nanoseconds(one.changed));
	};
	return all(*this) == all(other);
}

// By opening it, so that who may not read the file any more does not get to see it here.
std::optional<KeptSections::Stamp> KeptSections::Look() const
{
	const Descriptor file(
		Retried([&] { return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
	struct stat status;
	if (!file || fstat(file.Get(), &status) != 0)
		return std::nullopt;
	return Stamp{status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

// Ticks are 10 ms apart at most. Where stamps have no more than seconds, some file systems count these in twos.
bool KeptSections::IsSettled(const Stamp &stamp)
{
	constexpr long long kTicks = 100'000'000;
	constexpr long long kSeconds = 3'000'000'000;
	timespec now = {};
	clock_gettime(CLOCK_REALTIME, &now);
	return Nanoseconds(now) - Nanoseconds(stamp.changed) > (stamp.changed.tv_nsec == 0 ? kSeconds : kTicks);
}

bool KeptSections::IsCurrent() const
{
	return !text.empty() && Look() == stamp;
}

std::vector<Occurrence> KeptSections::Find(std::string_view name) const
{
	const auto [first, last] = std::equal_range(sections.begin(), sections.end(), Section{name, {}}, ByName);
	std::vector<Occurrence> found;
	std::transform(first, last, std::back_inserter(found), [](const Section &section) { return section.place; });
	return found;
}

void KeptSections::BeforeReading()
{
	text.clear();
	sections.clear();
	stamp = Look();
}

std::unique_ptr<KeptSections> KeptSections::AfterReading(std::unique_ptr<KeptSections> kept, const char *szPath,
                                                         std::string &&readText)
{
	if (readText.size() < kLeast || readText.size() > kMost)
		return nullptr;
	if (!kept)
		return std::unique_ptr<KeptSections>(new KeptSections(szPath));
	if (kept->stamp && IsSettled(*kept->stamp) && kept->Look() == kept->stamp)
		kept->Keep(std::move(readText));
	return kept;
}

void KeptSections::Keep(std::string &&readText)
{
	text = std::move(readText);
	ForEachHeader(text, [this](std::string_view name, const Occurrence &place) {
		sections.push_back({name, place});
	});
	std::stable_sort(sections.begin(), sections.end(), ByName);
}

} // namespace vunkc
