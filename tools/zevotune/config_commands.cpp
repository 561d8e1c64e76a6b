#include "commands.h"

#include "catalogue.h"
#include "config_access.h"
#include "config_keys.h"
#include "error_text.h"
#include "failure.h"
#include "output.h"
#include "paths.h"
#include "table.h"
#include "terminal.h"

#include <zevotuned/config.h>

#include <json/value.h>

#include <algorithm>
#include <iterator>

namespace {

std::vector<std::string> KeysOf(const Config &config)
{
	std::vector<std::string> keys;
	std::transform(config.begin(), config.end(), std::back_inserter(keys),
	               [](const auto &pair) { return pair.first; });
	return keys;
}

// The keys that may be set: those of the file, and the documented ones that it lacks.
std::vector<std::string> KnownKeys(const Config &config)
{
	std::vector<std::string> keys = KeysOf(config);
	for (const ConfigKey &key : ConfigKeys())
		if (FindValue(config, key.name) == nullptr)
			keys.emplace_back(key.name);
	return keys;
}

std::string NoSuchKey(const std::string &key, const std::vector<std::string> &known)
{
	std::string text = std::string("there is no key ") + Quoted(key) + " in " + kConfigFile +
	                   DidYouMean(key, known, ";") + " known keys: ";
	for (const std::string &name : known)
		text += (name == known.front() ? "" : ", ") + name;
	return text;
}

void RequireSensibleValue(const ConfigKey &key, const std::string &value)
{
	if (!key.isSensible(value))
		throw Failure("cannot set " + Quoted(key.name) + " in " + kConfigFile + " to " + Quoted(value) +
		              ": it has to be " + key.values + "; --force sets it all the same");
}

void RequireInstalled(const std::string &name)
{
	const Catalogue catalogue = ReadCatalogue();
	if (FindProfile(catalogue, name) == nullptr)
		throw Failure(NoSuchProfile(catalogue, name) + " (--force records it all the same)");
}

void RequireSensible(const std::string &key, const std::string &value)
{
	if (const ConfigKey *documented = FindConfigKey(key)) {
		RequireSensibleValue(*documented, value);
		if (key == "profile")
			RequireInstalled(value);
		return;
	}
	const Config config = ReadConfigAsItIs();
	if (FindValue(config, key) == nullptr)
		throw Failure(NoSuchKey(key, KnownKeys(config)) + "; --force adds it");
}

} // namespace

void ConfigGet(const std::string &key, bool json)
{
	const Config config = ReadConfig();
	const std::string *value = FindValue(config, key);
	if (value == nullptr)
		throw Failure(NoSuchKey(key, KeysOf(config)));
	if (json) {
		Json::Value result;
		result["key"] = key;
		result["value"] = *value;
		PrintJson(result);
	} else {
		PrintLine(*value);
	}
}

void ConfigSet(const std::string &key, const std::string &value, bool force, bool json)
{
	RequireRoot("config set");
	if (!force)
		RequireSensible(key, value);
	ForgetErrors();
	if (TuneSetKeyValueToConfig(key.c_str(), value.c_str()) != 0)
		throw Failure("cannot set " + Quoted(key) + " to " + Quoted(value) + ": " + ErrorText());
	if (json) {
		Json::Value result;
		result["key"] = key;
		result["value"] = value;
		PrintJson(result);
	} else {
		PrintLine("set " + Printable(key) + " to " + Printable(Quoted(value)) + " in " + kConfigFile);
	}
}

void ConfigList(bool json)
{
	const Config config = ReadConfig();
	if (json) {
		Json::Value result(Json::objectValue);
		for (const auto &[key, value] : config)
			result[key] = value;
		PrintJson(result);
		return;
	}
	Table table({"KEY", "VALUE"});
	for (const auto &[key, value] : config)
		table.Add({key, value});
	Print(table.Text(OutputLook()));
}
