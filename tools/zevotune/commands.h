#ifndef ZEVOTUNE_COMMANDS_H
#define ZEVOTUNE_COMMANDS_H

// The commands; help.cpp says for users what they do. All throw Failure, and CacheCheck AnswerIsNo.

#include <string>

void List(bool json);
void Current(bool json);
void Set(const std::string &name, bool json);
void Apply(bool json);
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
