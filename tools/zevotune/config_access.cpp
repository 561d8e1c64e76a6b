#include "config_access.h"

#include "catalogue_check.h"
#include "config_keys.h"
#include "error_text.h"
#include "failure.h"
#include "paths.h"

#include "support/handles.h"
#include "support/text_buffer.h"

#include <vunkcore/error.h>
#include <vunkcore/pair_file.h>
#include <zevotuned/config.h>

#include <algorithm>
#include <new>

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

// Without the lock, which is root's: a file that is replaced as a whole is never seen half-written.
Config ReadConfigAsUser()
{
	Hash hash;
	ForgetErrors();
	if (hash && VUNKCFileGetPair(kConfigFile, hash.out()) >= 0)
		return PairsOf(hash);
	if (VUNKCErrGet() == VUNKC_ERR_FILE_MISSING)
		throw Failure(std::string(kCannotRead) + kConfigFile +
		              " is missing, and only root makes it; run \"sudo zevotune current\"");
	throw Failure(kCannotRead + ErrorText());
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
		return ReadConfigAsUser();
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

std::optional<std::string> SelectedProfileIfReadable()
{
	try {
		return SelectedProfile();
	} catch (const Failure &) {
		return std::nullopt;
	}
}

bool IsRoot()
{
	return geteuid() == 0;
}
