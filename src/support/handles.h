#ifndef SUPPORT_HANDLES_H
#define SUPPORT_HANDLES_H

// Owners of what the platform hands out.

#include <vunkcore/hash.h>
#include <vunkcore/list.h>

#include <utility>

#include <unistd.h>

// Owns one object of the platform. The calls that may move the object take its address: pass out().
template <class T, auto Free>
class Handle {
public:
	explicit Handle(T *owned) : object(owned) {}
	Handle(Handle &&other) noexcept : object(std::exchange(other.object, nullptr)) {}
	Handle &operator=(Handle &&other) noexcept
	{
		std::swap(object, other.object);
		return *this;
	}
	~Handle() { Free(object); }

	explicit operator bool() const { return object != nullptr; }
	T *get() const { return object; }
	T *operator->() const { return object; }
	T **out() { return &object; }

private:
	T *object;
};

inline constexpr int kInitialBytes = 1024;

class Hash : public Handle<VUNKSZHASH, VUNKCSzHashFree> {
public:
	Hash() : Handle(VUNKCSzHashAlloc(kInitialBytes)) {}
	const char *Get(const char *szKey) const { return VUNKCSzHashGetValue(get(), szKey); }
};

class List : public Handle<VUNKSZLIST, VUNKCSzListFree> {
public:
	List() : Handle(VUNKCSzListAlloc(kInitialBytes)) {}
	int Count() const { return get()->nItem; }
	const char *Get(int iIndex) const { return VUNKCSzListGet(get(), iIndex); }
};

class FileDescriptor {
public:
	explicit FileDescriptor(int owned) : fd(owned) {}
	FileDescriptor(FileDescriptor &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
	FileDescriptor &operator=(FileDescriptor &&other) noexcept
	{
		std::swap(fd, other.fd);
		return *this;
	}
	~FileDescriptor()
	{
		if (fd >= 0)
			close(fd);
	}

	explicit operator bool() const { return fd >= 0; }
	int get() const { return fd; }
	int release() { return std::exchange(fd, -1); }

private:
	int fd;
};

#endif
