#ifndef SUPPORT_ERROR_CODES_H
#define SUPPORT_ERROR_CODES_H

// Codes that this library sets on the error stack; their meaning is part of the public headers.
inline constexpr int kErrBadArgument = 0xD00;
inline constexpr int kErrNotCreated = 0xC00;
inline constexpr int kErrNotRegularFile = 0xC000;
inline constexpr int kErrNotDirectory = 0xA000;
inline constexpr int kErrLockNotTaken = 0x900;
inline constexpr int kErrEngineBusy = 0x6400;
inline constexpr int kErrNotForked = 0x9700;

// Sets one of them with the place where it is set.
#define SET_ERROR(code) VUNKCErrSetEx(code, COMPONENT_FILE, __LINE__)

#endif
