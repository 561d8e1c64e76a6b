#ifndef TESTS_KIT_LAB_H
#define TESTS_KIT_LAB_H

// The machine that a test runs on: the real paths, in a namespace of the test run's own (tests/lab/enter).

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <string_view>

namespace kit {

inline const std::string kShippedDir = "/usr/zevo/share/zevotuned/profiles";
inline const std::string kLocalDir = "/usr/local/share/zevotuned/profiles";
inline const std::string kShippedGlobalDir = "/usr/zevo/share/zevotuned/global";
inline const std::string kLocalGlobalDir = "/usr/local/share/zevotuned/global";
inline const std::string kConfigFile = "/usr/zevo/etc/zevotuned/config";
inline const std::string kConfigLock = "/run/lock/zevotuned/config.lock";

/// Ends the process unless it runs inside of tests/lab/enter: the next write would hit the real machine.
void RequireLab();

/// Makes the machine one on which the library has never run: /usr/zevo/etc is there and empty, no profiles, no run-time
/// folders, kernel parameters as the lab found them, umask 022.
void FreshMachine();

/// Starts every test on a fresh machine. After every test, descriptors and children must be as they were.
class LabTest : public testing::Test {
protected:
	LabTest();
	void TearDown() override;

private:
	std::set<int> descriptors;
};

/// Puts a profile file into a folder. Returns its path.
std::string Install(const std::string &dir, const std::string &file, std::string_view text);

/// The value of a kernel parameter, such as "vm.dirty_ratio", without the newline.
std::string Sysctl(const std::string &key);

/// Number of children of this process, ended ones included.
int Children();

} // namespace kit

#endif
