#ifndef PLATFORM_COMMON_DESCRIPTOR_H
#define PLATFORM_COMMON_DESCRIPTOR_H

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace vunkc {

/// Owns a file descriptor. Closing it leaves errno alone, which the failure before it has set.
class Descriptor {
public:
	explicit Descriptor(int owned = -1) : fd(owned) {}
	Descriptor(Descriptor &&other) noexcept : fd(other.Release()) {}
	Descriptor &operator=(Descriptor &&other) noexcept
	{
		std::swap(fd, other.fd);
		return *this;
	}
	~Descriptor() { Close(); }

	explicit operator bool() const { return fd >= 0; }
	int Get() const { return fd; }
	int Release() { return std::exchange(fd, -1); }
	void Close()
	{
		if (fd < 0)
			return;
		const int before = errno;
		close(Release());
		errno = before;
	}

private:
	int fd;
};

} // namespace vunkc

#endif
