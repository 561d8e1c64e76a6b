#include "catalogue_check.h"
#include "commands.h"
#include "failure.h"
#include "help.h"
#include "output.h"

#include <CLI/CLI.hpp>

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <syslog.h>

namespace {

constexpr int kFailed = Failure::kExitStatus;
constexpr int kWrongUsage = 2;

/// What was asked for on the command line.
struct Request {
	bool json = false;
	bool force = false;
	bool list = false;
	bool names = false;
	bool noWait = false;
	bool watch = false;
	std::string name;
	std::optional<std::string> optionalName;
	std::vector<std::string> files;
	std::string volume;
	std::string key;
	std::string value;
	std::function<void()> command;
};

void AddJson(CLI::App &app, Request &request)
{
	app.add_flag("--json", request.json, "print the result as JSON");
}

CLI::App &AddCommand(CLI::App &parent, Request &request, const char *name, const char *summary,
                     const std::string &manual)
{
	CLI::App &command = *parent.add_subcommand(name, summary);
	command.footer(manual);
	AddJson(command, request);
	return command;
}

void Run(CLI::App &app, Request &request, std::function<void()> command)
{
	app.callback([&request, command = std::move(command)] { request.command = command; });
}

void AddConfigCommands(CLI::App &tool, Request &request)
{
	CLI::App &config = AddCommand(tool, request, "config", "read or change the configuration", help::kConfig);
	config.require_subcommand(1);

	CLI::App &get = AddCommand(config, request, "get", "print the value of a key", help::kConfigGet);
	get.add_option("KEY", request.key, "the key")->required();
	Run(get, request, [&request] { ConfigGet(request.key, request.json); });

	CLI::App &set = AddCommand(config, request, "set", "set a key to a value", help::ConfigSet());
	set.add_option("KEY", request.key, "the key")->required();
	set.add_option("VALUE", request.value, "its new value")->required();
	set.add_flag("--force", request.force, "set it whatever it is");
	Run(set, request, [&request] { ConfigSet(request.key, request.value, request.force, request.json); });

	CLI::App &list = AddCommand(config, request, "list", "print all keys and values", help::kConfigList);
	Run(list, request, [&request] { ConfigList(request.json); });
}

CLI::App &AddCacheCommand(CLI::App &cache, Request &request, const char *name, const char *summary, const char *manual)
{
	CLI::App &command = AddCommand(cache, request, name, summary, manual);
	command.add_option("VOLUME", request.volume, "a path on the volume, or its device")->required();
	return command;
}

void AddPass(CLI::App &cache, Request &request, const char *name, const char *summary, const char *manual,
             void (*run)(const std::string &volume, bool noWait, bool json))
{
	CLI::App &command = AddCacheCommand(cache, request, name, summary, manual);
	command.add_flag("--no-wait", request.noWait, "start the pass and do not wait for it");
	Run(command, request, [&request, run] { run(request.volume, request.noWait, request.json); });
}

void AddCacheCommands(CLI::App &tool, Request &request)
{
	CLI::App &cache =
		AddCommand(tool, request, "cache", "pin a Btrfs volume's metadata in its SSD cache", help::kCache);
	cache.require_subcommand(1);
	AddPass(cache, request, "on", "pin the metadata", help::kCacheOn, CacheOn);
	AddPass(cache, request, "off", "unpin it", help::kCacheOff, CacheOff);
	AddPass(cache, request, "rescan", "pin what is new and unpin what is gone", help::kCacheRescan, CacheRescan);

	CLI::App &status = AddCacheCommand(cache, request, "status", "show what is pinned, and how far a pass is",
	                                   help::kCacheStatus);
	status.add_flag("--watch", request.watch, "follow a pass until it has ended");
	Run(status, request, [&request] { CacheStatus(request.volume, request.watch, request.json); });

	CLI::App &stop = AddCacheCommand(cache, request, "stop", "end a pass by force", help::kCacheStop);
	Run(stop, request, [&request] { CacheStop(request.volume, request.json); });

	CLI::App &check =
		AddCacheCommand(cache, request, "check", "say whether the metadata can be pinned", help::kCacheCheck);
	Run(check, request, [&request] { CacheCheck(request.volume, request.json); });
}

void AddCommands(CLI::App &tool, Request &request)
{
	tool.get_formatter()->label("REQUIRED", "");
	tool.get_formatter()->label("TEXT", "");
	tool.set_help_flag("-h,--help", "print this help");
	tool.set_version_flag("--version", "zevotune " ZEVOTUNE_VERSION, "print the version");
	tool.footer(help::kTool);
	tool.require_subcommand(1);
	AddJson(tool, request);

	CLI::App &list = AddCommand(tool, request, "list", "list the installed profiles", help::kList);
	list.add_flag("--names", request.names, "print nothing but the names");
	Run(list, request, [&request] { List(request.names, request.json); });

	CLI::App &current = AddCommand(tool, request, "current", "print the selected profile's name", help::kCurrent);
	Run(current, request, [&request] { Current(request.json); });

	CLI::App &set = AddCommand(tool, request, "set", "select a profile and apply it", help::kSet);
	set.add_option("NAME", request.name, "name of an installed profile")->required();
	Run(set, request, [&request] { Set(request.name, request.json); });

	CLI::App &apply = AddCommand(tool, request, "apply", "apply the selected profile again", help::kApply);
	Run(apply, request, [&request] { Apply(request.json); });

	CLI::App &undo =
		AddCommand(tool, request, "undo", "restore what the last set or apply has overwritten", help::kUndo);
	Run(undo, request, [&request] { Undo(request.json); });

	CLI::App &plan = AddCommand(tool, request, "plan", "show what applying a profile would change", help::kPlan);
	plan.add_option("NAME", request.name, "name of an installed profile")->required();
	Run(plan, request, [&request] { ShowPlan(request.name, request.json); });

	CLI::App &verify = AddCommand(tool, request, "verify", "show which values of a profile hold", help::kVerify);
	verify.add_option("NAME", request.optionalName, "name of an installed profile (else the selected)");
	Run(verify, request, [&request] { VerifyProfile(request.optionalName, request.json); });

	CLI::App &lint = AddCommand(tool, request, "lint", "look for mistakes in profiles' files", help::kLint);
	lint.add_option("FILE", request.files, "the files, installed or not")->required();
	Run(lint, request, [&request] { LintProfiles(request.files, request.json); });

	CLI::App &devices = AddCommand(tool, request, "devices", "show what profiles concern: volumes, arrays, disks",
	                               help::kDevices);
	Run(devices, request, [&request] { Devices(request.json); });

	CLI::App &metadata = AddCommand(tool, request, "metadata",
	                                "show where on its device a Btrfs volume's metadata lies", help::kMetadata);
	metadata.add_option("VOLUME", request.volume, "a path on the volume, or its device")->required();
	metadata.add_flag("--list", request.list, "list every chunk");
	Run(metadata, request, [&request] { Metadata(request.volume, request.list, request.json); });

	AddCacheCommands(tool, request);
	AddConfigCommands(tool, request);
}

void ComplainOfUsage(const CLI::App &tool, const CLI::ParseError &error)
{
	// The command that the words before the mistake name, such as "zevotune config set".
	const CLI::App *command = &tool;
	std::string fullName = tool.get_name();
	while (!command->get_subcommands().empty()) {
		command = command->get_subcommands().front();
		fullName += ' ' + command->get_name();
	}

	std::vector<std::string> subcommands;
	for (const CLI::App *subcommand : command->get_subcommands([](const CLI::App *) { return true; }))
		subcommands.push_back(subcommand->get_name());
	const std::vector<std::string> words = command->remaining();
	if (!words.empty() && words.front() != "--" && words.front().starts_with('-'))
		Complain("there is no option " + Quoted(words.front()));
	else if (!words.empty() && !subcommands.empty())
		Complain("there is no command " + Quoted(words.front()) + DidYouMean(words.front(), subcommands, ""));
	else
		Complain(error.what());
	fprintf(stderr, "Run \"%s --help\" for more information.\n", fullName.c_str());
}

int RunCommand(const std::function<void()> &command)
{
	try {
		command();
		FlushOutput();
		return 0;
	} catch (const AnswerIsNo &) {
		return kFailed;
	} catch (const Failure &failure) {
		Complain(failure.what());
		return failure.exitStatus;
	}
}

int ParseAndRun(int argc, char **argv)
{
	Request request;
	CLI::App tool("Selects and applies performance profiles of the storage stack, and pins metadata of\n"
	              "Btrfs volumes in the SSD caches in front of them.",
	              "zevotune");
	AddCommands(tool, request);
	try {
		tool.parse(argc, argv);
	} catch (const CLI::Success &asked) {
		return RunCommand([&] { tool.exit(asked); });
	} catch (const CLI::ParseError &error) {
		ComplainOfUsage(tool, error);
		return kWrongUsage;
	}
	return RunCommand(request.command);
}

} // namespace

int main(int argc, char **argv)
{
	openlog("zevotune", LOG_PID, LOG_USER);
	umask(umask(0) | S_IWGRP | S_IWOTH); // what root makes is written by root alone
	try {
		return ParseAndRun(argc, argv);
	} catch (...) {
		fputs("zevotune: memory has run out\n", stderr);
		return kFailed;
	}
}
