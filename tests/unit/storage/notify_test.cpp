#include "answers.h"

#include "kit/files.h"
#include "kit/journal.h"

#include <vunkcore/vunkcore.h>
#include <zevostorage/notify.h>

#include <cerrno>
#include <filesystem>
#include <memory>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace answers;

namespace fs = std::filesystem;

namespace {

constexpr char kSocket[] = "/run/systemd/journal/socket";
constexpr sockaddr_un kAddress = {AF_UNIX, "/run/systemd/journal/socket"};
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
		EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&kAddress), sizeof(kAddress)), 0);
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

	/// The next datagram; "" when there is none.
	std::string Datagram() const
	{
		std::string bytes(1 << 16, '\0');
		const ssize_t size = recv(fd, bytes.data(), bytes.size(), 0);
		bytes.resize(size < 0 ? 0 : static_cast<size_t>(size));
		return bytes;
	}

	/// The fields of the next entry, "NAME=value", but for this program's name; none when there is none. Every value must
	/// have its length in front.
	Strings Next() const
	{
		const std::string entry = Datagram();
		Strings fields;
		for (size_t at = 0; at < entry.size();) {
			const size_t value = entry.find('\n', at) + 1 + 8;
			if (value < 9 || value > entry.size())
				return {"a field is cut off"};
			size_t length = 0;
			for (size_t i = value; i-- > value - 8;)
				length = length << 8 | static_cast<unsigned char>(entry[i]);
			if (length >= entry.size() - value || entry[value + length] != '\n')
				return {"a value does not end where it should"};
			fields.push_back(entry.substr(at, value - 9 - at) + "=" + entry.substr(value, length));
			at = value + length + 1;
		}
		std::erase(fields, std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name);
		return fields;
	}

	/// Sends datagrams of others until it takes no more.
	void Fill() const
	{
		for (bool taken = true; taken;) {
			const int other = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
			taken = false; // one socket alone could have used up its own buffer before
			while (sendto(other, "x", 1, 0, reinterpret_cast<const sockaddr *>(&kAddress),
			              sizeof(kAddress)) == 1)
				taken = true;
			EXPECT_EQ(errno, EAGAIN);
			close(other);
		}
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

class Notifications : public kit::LabTest {
protected:
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

TEST_F(Notifications, AreExactlyTheBytesThatTheJournalTakes)
{
	using namespace std::string_literals;
	const Listener journal;
	Notify("Tag\n", HashOf({{"a", "b\nc"}}).get());
	const std::string program = program_invocation_short_name;
	EXPECT_EQ(journal.Datagram(), "MESSAGE\n\x0B\0\0\0\0\0\0\0Tag?: a=b?c\n"
	                              "PRIORITY\n\x01\0\0\0\0\0\0\0"
	                              "4\n"
	                              "SYSLOG_IDENTIFIER\n"s +
	                                      static_cast<char>(program.size()) + "\0\0\0\0\0\0\0"s + program +
	                                      "\nZEVO_EVENT\n\x04\0\0\0\0\0\0\0Tag\n\n"
	                                      "ZEVO_A\n\x03\0\0\0\0\0\0\0"
	                                      "b\nc\n"s);
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

TEST_F(Notifications, AreLinesOfSyslogWhenTheJournalTakesNoMore)
{
	const kit::Journal syslog;
	const Listener journal;
	journal.Fill();
	Notify("Full", nullptr);
	EXPECT_EQ(syslog.Lines(), (Strings{"<4>Full"}));
	for (std::string taken = journal.Datagram(); !taken.empty(); taken = journal.Datagram())
		EXPECT_EQ(taken, "x");
	Notify("Empty", nullptr);
	EXPECT_EQ(journal.Next(), (Strings{"MESSAGE=Empty", "PRIORITY=4", "ZEVO_EVENT=Empty"}));
	EXPECT_EQ(syslog.Lines(), (Strings{"<4>Full"}));
}

TEST_F(Notifications, AreLinesOfSyslogWhenTheyAreTooLongForADatagram)
{
	const kit::Journal syslog;
	const Listener journal;
	const std::string value(1 << 20, 'v'); // the kernel's limit is a fifth of that
	Notify("Long", HashOf({{"A", value}}).get());
	EXPECT_EQ(journal.Next(), Strings());
	EXPECT_EQ(syslog.Raw(), (Strings{"Long: A=" + value}));
}

TEST_F(Notifications, AreLinesOfSyslogWithoutAFreeDescriptor)
{
	const kit::Journal syslog;
	const Listener journal;
	rlimit limit;
	ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
	const rlimit none = {0, limit.rlim_max};
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
	Notify("None", nullptr);
	ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
	EXPECT_EQ(journal.Next(), Strings());
	EXPECT_EQ(syslog.Lines(), (Strings{"<4>None"}));
}

TEST_F(Notifications, GoToTheJournalFromAChildThatHasClosedAllDescriptors)
{
	const Listener journal;
	Notify("Parent", nullptr);
	EXPECT_NE(journal.Next(), Strings());
	const kit::TempDir dir;
	const std::string path = dir.Path("file");
	const pid_t child = fork();
	if (child == 0) {
		closefrom(3);
		for (int i = 0; i < 100; ++i) // on every number that the parent's socket could have had
			open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
		_exit(ZEVOSysNotifySendNotifiction("Child", nullptr) == 0 ? 0 : 1);
	}
	int status = -1;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_EQ(status, 0);
	EXPECT_EQ(journal.Next(), (Strings{"MESSAGE=Child", "PRIORITY=4", "ZEVO_EVENT=Child"}));
	EXPECT_EQ(kit::ReadFile(path), "");
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
