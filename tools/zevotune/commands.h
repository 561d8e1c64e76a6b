#ifndef ZEVOTUNE_COMMANDS_H
#define ZEVOTUNE_COMMANDS_H

// The commands; help.cpp says for users what they do. All throw Failure; those that answer a question throw AnswerIsNo.

#include <optional>
#include <string>
#include <vector>

/// @param names  nothing but the names, for programs that complete them.
void List(bool names, bool json);
void Current(bool json);
void Set(const std::string &name, bool json);
void Apply(bool json);
void Undo(bool json);
void ShowPlan(const std::string &name, bool json);
void VerifyProfile(const std::optional<std::string> &name, bool json);
void LintProfiles(const std::vector<std::string> &files, bool json);
void Devices(bool json);
void Metadata(const std::string &volume, bool list, bool json);

void CacheOn(const std::string &volume, bool noWait, bool json);
void CacheOff(const std::string &volume, bool noWait, bool json);
void CacheRescan(const std::string &volume, bool noWait, bool json);
void CacheStatus(const std::string &volume, bool watch, bool json);
void CacheStop(const std::string &volume, bool json);
void CacheCheck(const std::string &volume, bool json);

void ConfigGet(const std::string &key, bool json);
void ConfigSet(const std::string &key, const std::string &value, bool force, bool json);
void ConfigList(bool json);

/// Ends a command that writes, before it touches anything, unless it is run by root.
void RequireRoot(const std::string &command);

#endif
