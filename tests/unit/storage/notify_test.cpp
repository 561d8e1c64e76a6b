#include "answers.h"

#include "kit/files.h"
#include "kit/journal.h"

#include <vunkcore/vunkcore.h>
#include <zevostorage/notify.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace answers;

namespace fs = std::filesystem;

namespace {

constexpr char kSocket[] = "/run/systemd/journal/socket";
const std::string kSpaceFull =
	"The pinned Btrfs metadata takes 95 % (12 GiB) of SSD cache 1. Enlarge the cache, or lower "
	"btrfs_metadata_cache_space_usage_limit.";

/// A journal that listens, and takes entries apart as their protocol has it.
class Listener {
public:
	Listener() : fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
	{
		fs::create_directories(fs::path(kSocket).parent_path());
		fs::remove(kSocket);
		sockaddr_un address = {};
		address.sun_family = AF_UNIX;
		strcpy(address.sun_path, kSocket);
		EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
	}
	~Listener() { StopListening(); }
	Listener(const Listener &) = delete;
	Listener &operator=(const Listener &) = delete;

	/// The socket's name stays, as after a crash.
	void StopListening()
	{
		if (fd >= 0)
			close(fd);
		fd = -1;
	}

	/// The fields of the next entry, "NAME=value", but for the program's name; none when there is none.
	Strings Next() const
	{
		std::string entry(1 << 16, '\0');
		const ssize_t size = recv(fd, entry.data(), entry.size(), 0);
		if (size < 0)
			return {};
		entry.resize(static_cast<size_t>(size));
		Strings fields;
		for (size_t at = 0; at < entry.size();) {
			const size_t end = entry.find('\n', at);
			std::string field = entry.substr(at, end - at);
			at = end + 1;
			if (field.find('=') == std::string::npos) { // with its length in front
				uint64_t length = 0;
				memcpy(&length, entry.data() + at, sizeof(length));
				field += "=" + entry.substr(at + sizeof(length), length);
				at += sizeof(length) + length + 1;
			}
			if (!field.starts_with("SYSLOG_IDENTIFIER="))
				fields.push_back(field);
		}
		return fields;
	}

private:
	int fd;
};

struct FreeHash {
	void operator()(VUNKSZHASH *hash) const { VUNKCSzHashFree(hash); }
};
using Hash = std::unique_ptr<VUNKSZHASH, FreeHash>;

Hash HashOf(const std::vector<std::pair<std::string, std::string>> &pairs)
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(64);
	for (const auto &[key, value] : pairs)
		EXPECT_EQ(VUNKCSzHashSetValue(&hash, key.c_str(), value.c_str()), 0);
	return Hash(hash);
}

Hash SpaceFull()
{
	return HashOf({{"%SSD_ID%", "1"}, {"%USAGE%", "95"}, {"%USED_SIZE%", "12"}});
}

/// Sends a notification; it must succeed.
void Notify(const char *tag, const VUNKSZHASH *hash)
{
	SetOldCode();
	EXPECT_EQ(ZEVOSysNotifySendNotifiction(tag, hash), 0);
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
}

/// Nothing of the process's is left but the socket that sd-journal keeps; so no LabTest, which compares descriptors.
class Notifications : public testing::Test {
protected:
	Notifications() { kit::FreshMachine(); }
	~Notifications() { fs::remove_all("/run/systemd/journal"); }
};

} // namespace

TEST_F(Notifications, AreEntriesOfTheJournal)
{
	const kit::Journal syslog;
	const Listener journal;
	Notify(ZEVO_NOTIFY_METADATA_CACHE_SPACE_FULL, SpaceFull().get());
	EXPECT_EQ(journal.Next(),
	          (Strings{"MESSAGE=" + kSpaceFull, "PRIORITY=4", "ZEVO_EVENT=MetadataCacheSpaceFullWarning",
	                   "ZEVO_SSD_ID=1", "ZEVO_USAGE=95", "ZEVO_USED_SIZE=12"}));
	EXPECT_EQ(journal.Next(), Strings());
	EXPECT_EQ(syslog.Lines(), Strings());
}

TEST_F(Notifications, AreLinesOfSyslogWithoutAJournal)
{
	const kit::Journal syslog;
	Notify(ZEVO_NOTIFY_METADATA_CACHE_SPACE_FULL, SpaceFull().get());
	EXPECT_EQ(syslog.Lines(), (Strings{"<4>" + kSpaceFull}));
}

TEST_F(Notifications, AreLinesOfSyslogWhenTheJournalDoesNotListen)
{
	const kit::Journal syslog;
	Listener journal;
	journal.StopListening();
	Notify(ZEVO_NOTIFY_METADATA_CACHE_SPACE_FULL, SpaceFull().get());
	SetOldCode();
	EXPECT_EQ(ZEVOLogSet1(1, 2, 0x116000F6, "12", "95", "1", static_cast<char *>(nullptr)), 0);
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	EXPECT_EQ(syslog.Lines(),
	          (Strings{"<4>" + kSpaceFull, "<4>Pinned Btrfs metadata takes 12 GiB, 95 % of SSD cache 1."}));
}

TEST_F(Notifications, OfOtherTagsAreTheTagAndItsValues)
{
	const Listener journal;
	Notify("SomethingElse", HashOf({{"%A%", "x y"}, {"b-c.1", ""}, {"%SSD_ID%", "%"}}).get());
	EXPECT_EQ(journal.Next(), (Strings{"MESSAGE=SomethingElse: %A%=x y, b-c.1=, %SSD_ID%=%", "PRIORITY=4",
	                                   "ZEVO_EVENT=SomethingElse", "ZEVO_A=x y", "ZEVO_B_C_1=", "ZEVO_SSD_ID=%"}));
	Notify("Alone", nullptr);
	EXPECT_EQ(journal.Next(), (Strings{"MESSAGE=Alone", "PRIORITY=4", "ZEVO_EVENT=Alone"}));
	Notify("Empty", HashOf({}).get());
	EXPECT_EQ(journal.Next(), (Strings{"MESSAGE=Empty", "PRIORITY=4", "ZEVO_EVENT=Empty"}));
	Notify(ZEVO_NOTIFY_METADATA_CACHE_SPACE_FULL, HashOf({{"%SSD_ID%", "1"}, {"%USAGE%", "95"}}).get());
	EXPECT_EQ(journal.Next(),
	          (Strings{"MESSAGE=MetadataCacheSpaceFullWarning: %SSD_ID%=1, %USAGE%=95", "PRIORITY=4",
	                   "ZEVO_EVENT=MetadataCacheSpaceFullWarning", "ZEVO_SSD_ID=1", "ZEVO_USAGE=95"}));
}

TEST_F(Notifications, HaveFieldsWithNamesThatTheJournalTakes)
{
	const Listener journal;
	Notify("T", HashOf({{std::string(100, 'k'), "v"}, {"\n_=", "v"}, {"%%", "v"}}).get());
	const Strings fields = journal.Next();
	ASSERT_EQ(fields.size(), 6U);
	EXPECT_EQ(fields[3], "ZEVO_" + std::string(59, 'K') + "=v");
	EXPECT_EQ(fields[4], "ZEVO____=v");
	EXPECT_EQ(fields[5], "ZEVO_=v");
}

TEST_F(Notifications, CannotBeForgedByTheirValues)
{
	const std::string forged = "1\nPRIORITY=0\nMESSAGE=all is well\x1b[2J";
	{
		const Listener journal;
		Notify("Tag\nZEVO_X=1", HashOf({{"%SSD_ID%", forged}}).get());
		EXPECT_EQ(journal.Next(),
		          (Strings{"MESSAGE=Tag?ZEVO_X=1: %SSD_ID%=1?PRIORITY=0?MESSAGE=all is well?[2J", "PRIORITY=4",
		                   "ZEVO_EVENT=Tag\nZEVO_X=1", "ZEVO_SSD_ID=" + forged}));
		EXPECT_EQ(journal.Next(), Strings());
		EXPECT_EQ(ZEVOLogSet1(1, 2, 1, forged.c_str(), static_cast<char *>(nullptr)), 0);
		EXPECT_EQ(journal.Next(),
		          (Strings{"MESSAGE=Event 00000001: 1?PRIORITY=0?MESSAGE=all is well?[2J", "PRIORITY=4",
		                   "ZEVO_EVENT_ID=00000001", "ZEVO_LOG_KIND=1", "ZEVO_TEXT_1=" + forged}));
	}
	fs::remove_all("/run/systemd/journal");
	const kit::Journal syslog;
	Notify("%s%n\r\n", nullptr);
	EXPECT_EQ(syslog.Lines(), (Strings{"<4>%s%n??"}));
}

TEST_F(Notifications, OfEventsHaveTheirTexts)
{
	const Listener journal;
	SetOldCode();
	EXPECT_EQ(ZEVOLogSet1(ZEVO_LOG_SYSTEM, ZEVO_LOG_WARNING, ZEVO_EVENT_METADATA_CACHE, "12", "95", "1",
	                      static_cast<char *>(nullptr)),
	          0);
	EXPECT_EQ(VUNKCErrGet(), kOldCode);
	EXPECT_EQ(journal.Next(), (Strings{"MESSAGE=Pinned Btrfs metadata takes 12 GiB, 95 % of SSD cache 1.",
	                                   "PRIORITY=4", "ZEVO_EVENT_ID=116000F6", "ZEVO_LOG_KIND=1", "ZEVO_TEXT_1=12",
	                                   "ZEVO_TEXT_2=95", "ZEVO_TEXT_3=1"}));
	EXPECT_EQ(ZEVOLogSet1(1, 2, -1, static_cast<char *>(nullptr)), 0);
	EXPECT_EQ(journal.Next(),
	          (Strings{"MESSAGE=Event FFFFFFFF", "PRIORITY=4", "ZEVO_EVENT_ID=FFFFFFFF", "ZEVO_LOG_KIND=1"}));
	EXPECT_EQ(ZEVOLogSet1(1, 2, 0x116000F6, "12", static_cast<char *>(nullptr)), 0);
	EXPECT_EQ(journal.Next(), (Strings{"MESSAGE=Event 116000F6: 12", "PRIORITY=4", "ZEVO_EVENT_ID=116000F6",
	                                   "ZEVO_LOG_KIND=1", "ZEVO_TEXT_1=12"}));
}

TEST_F(Notifications, OfEventsHaveAtMostEightTexts)
{
	const Listener journal;
	EXPECT_EQ(ZEVOLogSet1(1, 2, 7, "1", "2", "3", "4", "5", "6", "7", "8", static_cast<char *>(nullptr)), 0);
	EXPECT_EQ(journal.Next(),
	          (Strings{"MESSAGE=Event 00000007: 1, 2, 3, 4, 5, 6, 7, 8", "PRIORITY=4", "ZEVO_EVENT_ID=00000007",
	                   "ZEVO_LOG_KIND=1", "ZEVO_TEXT_1=1", "ZEVO_TEXT_2=2", "ZEVO_TEXT_3=3", "ZEVO_TEXT_4=4",
	                   "ZEVO_TEXT_5=5", "ZEVO_TEXT_6=6", "ZEVO_TEXT_7=7", "ZEVO_TEXT_8=8"}));
	SetOldCode();
	EXPECT_EQ(ZEVOLogSet1(1, 2, 7, "1", "2", "3", "4", "5", "6", "7", "8", "9", static_cast<char *>(nullptr)), -1);
	EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT);
	EXPECT_EQ(journal.Next(), Strings());
}

TEST_F(Notifications, CanBeLong)
{
	const Listener journal;
	const std::string value(30000, 'v');
	Notify("Long", HashOf({{"A", value}}).get());
	EXPECT_EQ(journal.Next(),
	          (Strings{"MESSAGE=Long: A=" + value, "PRIORITY=4", "ZEVO_EVENT=Long", "ZEVO_A=" + value}));
}

TEST_F(Notifications, LeaveNoMoreThanOneDescriptorOpen)
{
	const Listener journal;
	Notify("First", nullptr);
	const std::set<int> before = kit::OpenDescriptors();
	for (int i = 0; i < 5; ++i)
		Notify("Next", SpaceFull().get());
	EXPECT_EQ(kit::OpenDescriptors(), before);
}

TEST_F(Notifications, RefuseArgumentsThatAreNullOrOutOfRange)
{
	const kit::Journal syslog;
	const Hash hash = SpaceFull();
	const std::vector<std::function<int()>> calls = {
		[&] { return ZEVOSysNotifySendNotifiction(nullptr, hash.get()); },
		[&] { return ZEVOSysNotifySendNotifiction("", hash.get()); },
		[&] { return ZEVOLogSet1(0, 2, 1, static_cast<char *>(nullptr)); },
		[&] { return ZEVOLogSet1(2, 2, 1, static_cast<char *>(nullptr)); },
		[&] { return ZEVOLogSet1(1, 1, 1, static_cast<char *>(nullptr)); },
		[&] { return ZEVOLogSet1(1, 3, 1, static_cast<char *>(nullptr)); },
	};
	for (size_t i = 0; i < calls.size(); ++i) {
		SetOldCode();
		EXPECT_EQ(calls[i](), -1) << i;
		EXPECT_EQ(VUNKCErrGet(), VUNKC_ERR_BAD_ARGUMENT) << i;
	}
	EXPECT_EQ(syslog.Lines(), Strings());
}
