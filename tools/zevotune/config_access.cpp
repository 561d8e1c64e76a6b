#include "config_access.h"

#include "catalogue_check.h"
#include "config_keys.h"
#include "error_text.h"
#include "failure.h"
#include "paths.h"

#include "support/handles.h"
#include "support/text_buffer.h"

#include <zevotuned/config.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr const char *kCannotRead = "cannot read the configuration: ";

Config PairsOf(const Hash &hash)
{
	List keys;
	if (!keys || VUNKCSzHashEnumKey(hash.get(), keys.out()) < 0)
		throw std::bad_alloc();
	Config config;
	for (int i = 0; i < keys.Count(); ++i)
		config.emplace_back(keys.Get(i), hash.Get(keys.Get(i)));
	return config;
}

void AddDefaults(Config &config)
{
	for (const ConfigKey &key : ConfigKeys())
		if (FindValue(config, key.name) == nullptr)
			config.emplace_back(key.name, key.defaultValue);
}

// The library opens the lock file such that it is made where it is missing. Only root is to make it: one that belonged
// to somebody else could be locked for good.
void RequireThatNothingIsMade()
{
	for (const std::string path : {kConfigFile, kLockFile}) {
		const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
		if (file)
			continue;
		if (errno == ENOENT)
			throw Failure(kCannotRead + path +
			              " is missing, and only root makes it; run \"sudo zevotune current\"");
		throw Failure(kCannotRead + path + " cannot be opened (" + strerror(errno) +
		              "); run zevotune as root (sudo)");
	}
}

} // namespace

const std::string *FindValue(const Config &config, const std::string &key)
{
	const auto found =
		std::find_if(config.begin(), config.end(), [&](const auto &pair) { return pair.first == key; });
	return found == config.end() ? nullptr : &found->second;
}

Config ReadConfig()
{
	if (!IsRoot()) {
		Config config = ReadConfigAsItIs();
		AddDefaults(config);
		return config;
	}
	Hash hash;
	ForgetErrors();
	if (!hash || TunedConfigGet(hash.out()) != 0)
		throw Failure(kCannotRead + ErrorText());
	return PairsOf(hash);
}

Config ReadConfigAsItIs()
{
	if (!IsRoot())
		RequireThatNothingIsMade();
	Hash hash;
	ConfigPath path;
	ForgetErrors();
	const int present = TuneGetOrCreateConfig(path.data(), path.capacity(), false);
	if (present == 0)
		return {};
	if (!hash || present < 0 || TuneGetConfigHashFromFile(path.c_str(), hash.out()) != 0)
		throw Failure(kCannotRead + ErrorText());
	return PairsOf(hash);
}

std::string SelectedProfile()
{
	Config config = ReadConfigAsItIs();
	AddDefaults(config);
	return *FindValue(config, "profile");
}

bool IsRoot()
{
	return geteuid() == 0;
}
