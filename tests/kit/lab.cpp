#include "kit/lab.h"

#include "kit/files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>

#include <sys/stat.h>
#include <unistd.h>

namespace kit {

namespace fs = std::filesystem;

namespace {

const std::string kVmDir = "/proc/sys/vm";

std::map<std::string, std::string> ReadParameters()
{
	std::map<std::string, std::string> parameters;
	for (const auto &entry : fs::directory_iterator(kVmDir))
		parameters[entry.path()] = ReadFile(entry.path());
	return parameters;
}

void RestoreParameters()
{
	static const std::map<std::string, std::string> found = ReadParameters();
	for (const auto &[path, text] : found)
		WriteFile(path, text);
}

} // namespace

void RequireLab()
{
	if (fs::exists("/run/zevotuned-lab"))
		return;
	fprintf(stderr, "This test writes to /usr/zevo, /run and /proc/sys/vm; run it inside of tests/lab/enter.\n");
	exit(1);
}

void FreshMachine()
{
	RequireLab();
	for (const char *path : {"/usr/zevo/etc", "/usr/zevo/share", "/usr/local/share/zevotuned",
	                         "/run/lock/zevotuned", "/run/zevotuned"})
		fs::remove_all(path);
	fs::create_directories("/usr/zevo/etc");
	umask(022);
	RestoreParameters();
}

LabTest::LabTest()
{
	FreshMachine();
	descriptors = OpenDescriptors();
}

void LabTest::TearDown()
{
	EXPECT_EQ(OpenDescriptors(), descriptors) << "a descriptor was left open";
	EXPECT_EQ(Children(), 0) << "a child was left behind";
}

std::string Install(const std::string &dir, const std::string &file, std::string_view text)
{
	const std::string path = dir + "/" + file;
	WriteFile(path, text);
	return path;
}

std::string Sysctl(const std::string &key)
{
	std::string path = key;
	std::replace(path.begin(), path.end(), '.', '/');
	std::string value = ReadFile("/proc/sys/" + path);
	if (!value.empty() && value.back() == '\n')
		value.pop_back();
	return value;
}

int Children()
{
	int children = 0;
	for (const auto &task : fs::directory_iterator("/proc/self/task")) {
		std::istringstream list(ReadFile(task.path() / "children"));
		for (std::string pid; list >> pid;)
			++children;
	}
	return children;
}

} // namespace kit
