#include <zevostorage/notify.h>

#include "common/descriptor.h"
#include "storage/failure.h"
#include "storage/list_owner.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <endian.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

namespace {

constexpr sockaddr_un kJournal = {AF_UNIX, "/run/systemd/journal/socket"};
constexpr size_t kMaxFieldName = 64; // of the journal
constexpr int kMaxTexts = 8;

/// A text for a line that people read: what could end the line, or move the cursor, is "?".
std::string Printable(std::string_view text)
{
	std::string line(text);
	std::replace_if(
		line.begin(), line.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
	return line;
}

/// An entry while it is put together, as the datagram that the journal takes. It has the length of each value, so that no
/// value can forge another field.
class Entry {
public:
	explicit Entry(std::string_view text) : message(Printable(text))
	{
		Add("MESSAGE", message);
		Add("PRIORITY", std::to_string(LOG_WARNING));
		Add("SYSLOG_IDENTIFIER", program_invocation_short_name);
	}

	void Add(std::string_view name, std::string_view value)
	{
		const uint64_t length = htole64(value.size());
		datagram.append(name).append("\n");
		datagram.append(reinterpret_cast<const char *>(&length), sizeof(length));
		datagram.append(value).append("\n");
	}

	void Send() const
	{
		if (!SendToJournal())
			syslog(LOG_WARNING, "%s", message.c_str());
	}

private:
	/// False when there is no journal, or it does not take the entry at once: who tells of a full cache is not to wait
	/// for a journal that has stopped.
	///
	/// The socket is made for this entry: one that is kept would be another file in a child that has closed all its
	/// descriptors.
	bool SendToJournal() const
	{
		const vunkc::Descriptor journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
		return journal && sendto(journal.Get(), datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
		                         reinterpret_cast<const sockaddr *>(&kJournal), sizeof(kJournal)) >= 0;
	}

	const std::string message;
	std::string datagram;
};

using Pair = std::pair<std::string, std::string>;
using PairsOfHash = std::vector<Pair>;

/// The pairs of a hash, which may be null, in its order; nothing on failure, with the error set.
std::optional<PairsOfHash> PairsOf(const VUNKSZHASH *hash)
{
	PairsOfHash pairs;
	if (hash == nullptr)
		return pairs;
	VUNKSZLIST *list = VUNKCSzListAlloc(1024);
	if (list == nullptr)
		return std::nullopt;
	const int count = VUNKCSzHashEnumKey(hash, &list);
	const zevos::ListOwner keys(list);
	if (count < 0)
		return std::nullopt;
	for (int i = 0; i < keys->nItem; ++i) {
		const char *const key = VUNKCSzListGet(keys.get(), i);
		const char *const value = VUNKCSzHashGetValue(hash, key);
		pairs.emplace_back(key, value != nullptr ? value : "");
	}
	return pairs;
}

const std::string *Find(const PairsOfHash &pairs, std::string_view key)
{
	const auto found =
		std::find_if(pairs.begin(), pairs.end(), [&](const Pair &pair) { return pair.first == key; });
	return found == pairs.end() ? nullptr : &found->second;
}

std::string NotificationText(const char *tag, const PairsOfHash &pairs)
{
	const std::string *const id = Find(pairs, "%SSD_ID%");
	const std::string *const usage = Find(pairs, "%USAGE%");
	const std::string *const size = Find(pairs, "%USED_SIZE%");
	if (strcmp(tag, ZEVO_NOTIFY_METADATA_CACHE_SPACE_FULL) == 0 && id != nullptr && usage != nullptr &&
	    size != nullptr)
		return "The pinned Btrfs metadata takes " + *usage + " % (" + *size + " GiB) of SSD cache " + *id +
		       ". Enlarge the cache, or lower btrfs_metadata_cache_space_usage_limit.";
	std::string text = tag;
	const char *separator = ": ";
	for (const auto &[key, value] : pairs) {
		text.append(separator).append(key).append("=").append(value);
		separator = ", ";
	}
	return text;
}

std::string EventText(unsigned event, const char *digits, const std::vector<const char *> &texts)
{
	if (event == ZEVO_EVENT_METADATA_CACHE && texts.size() == 3)
		return std::string("Pinned Btrfs metadata takes ") + texts[0] + " GiB, " + texts[1] +
		       " % of SSD cache " + texts[2] + ".";
	std::string text = std::string("Event ") + digits;
	const char *separator = ": ";
	for (const char *const word : texts) {
		text.append(separator).append(word);
		separator = ", ";
	}
	return text;
}

std::string FieldName(std::string_view key)
{
	std::string name = "ZEVO_";
	for (const char c : key) {
		if (c == '%')
			continue;
		const bool isLower = c >= 'a' && c <= 'z';
		const bool isAllowed = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
		name.push_back(isLower ? static_cast<char>(c - 'a' + 'A') : isAllowed ? c : '_');
	}
	return name.substr(0, kMaxFieldName);
}

} // namespace

int ZEVOSysNotifySendNotifiction(const char *szTag, const VUNKSZHASH *psh)
{
	if (szTag == nullptr || *szTag == '\0')
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const std::optional<PairsOfHash> pairs = PairsOf(psh);
		if (!pairs)
			return -1;
		Entry entry(NotificationText(szTag, *pairs));
		entry.Add("ZEVO_EVENT", szTag);
		for (const auto &[key, value] : *pairs)
			entry.Add(FieldName(key), value);
		entry.Send();
		return 0;
	});
}

int ZEVOLogSet1(int iKind, int iLevel, int iEvent, ...)
{
	if (iKind != ZEVO_LOG_SYSTEM || iLevel != ZEVO_LOG_WARNING)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	const char *given[kMaxTexts + 1];
	int count = 0;
	va_list arguments;
	va_start(arguments, iEvent);
	for (; count <= kMaxTexts; ++count) {
		given[count] = va_arg(arguments, const char *); // NOLINT(clang-analyzer-valist.Uninitialized)
		if (given[count] == nullptr)
			break;
	}
	va_end(arguments);
	if (count > kMaxTexts)
		return VUNKC_FAIL(-1, VUNKC_ERR_BAD_ARGUMENT);
	return ZEVOS_GUARD(-1, [&] {
		const std::vector<const char *> texts(given, given + count);
		const unsigned event = static_cast<unsigned>(iEvent);
		char digits[16];
		snprintf(digits, sizeof(digits), "%08X", event);
		Entry entry(EventText(event, digits, texts));
		entry.Add("ZEVO_EVENT_ID", digits);
		entry.Add("ZEVO_LOG_KIND", std::to_string(iKind));
		for (size_t i = 0; i < texts.size(); ++i)
			entry.Add("ZEVO_TEXT_" + std::to_string(i + 1), texts[i]);
		entry.Send();
		return 0;
	});
}
