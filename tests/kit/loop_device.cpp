#include "kit/loop_device.h"

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kit {

namespace {

[[noreturn]] void Throw(const std::string &what)
{
	throw std::system_error(errno, std::generic_category(), what);
}

int OpenControl()
{
	return open("/dev/loop-control", O_RDWR | O_CLOEXEC);
}

/// Attaches a file to a free loop device. Somebody else may take that one first.
int Attach(int file, int &number)
{
	for (int attempt = 0; attempt < 50; ++attempt) {
		const int control = OpenControl();
		number = control >= 0 ? ioctl(control, LOOP_CTL_GET_FREE) : -1;
		close(control);
		if (number < 0)
			Throw("/dev/loop-control");
		const int fd = open(("/dev/loop" + std::to_string(number)).c_str(), O_RDWR | O_CLOEXEC);
		if (fd < 0)
			Throw("/dev/loop" + std::to_string(number));
		loop_config config = {};
		config.fd = static_cast<unsigned>(file);
		config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
		if (ioctl(fd, LOOP_CONFIGURE, &config) == 0)
			return fd;
		close(fd);
	}
	Throw("a free loop device");
}

std::string ActiveScheduler(const std::string &queue)
{
	const std::string offered = ReadFile(queue + "/scheduler");
	const size_t begin = offered.find('[') + 1;
	return offered.substr(begin, offered.find(']') - begin);
}

} // namespace

bool HasLoopDevices()
{
	const int control = OpenControl();
	if (control < 0)
		return false;
	close(control);
	return true;
}

LoopDevice::LoopDevice(long long bytes) : number(-1), fd(-1)
{
	const int file = open(folder.Path("image").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
	if (file < 0 || ftruncate(file, bytes) != 0)
		Throw("image");
	fd = Attach(file, number);
	close(file);
	scheduler = ActiveScheduler(Queue());
}

LoopDevice::~LoopDevice()
{
	// Whoever gets this number next finds the device as it was.
	try {
		WriteFile(Queue() + "/scheduler", scheduler);
	} catch (const std::exception &failure) {
		fprintf(stderr, "%s: %s\n", Path().c_str(), failure.what());
	}
	close(fd);
}

std::string LoopDevice::Name() const
{
	return "loop" + std::to_string(number);
}

std::string LoopDevice::Path() const
{
	return "/dev/" + Name();
}

std::string LoopDevice::Queue() const
{
	return "/run/lab/kernel-sys/block/" + Name() + "/queue";
}

std::string RunProgram(const std::vector<std::string> &words)
{
	std::string command;
	for (const std::string &word : words)
		command += "'" + word + "' ";
	FILE *const pipe = popen((command + "2>&1").c_str(), "re");
	if (pipe == nullptr)
		Throw(command);
	std::string output;
	char part[4096];
	for (size_t length; (length = fread(part, 1, sizeof(part), pipe)) > 0;)
		output.append(part, length);
	if (pclose(pipe) != 0)
		throw std::runtime_error(command + "failed: " + output);
	return output;
}

} // namespace kit
