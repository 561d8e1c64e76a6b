#include <vunkcore/model.h>

#include <vunkcore/error.h>
#include <vunkcore/hash.h>
#include <vunkcore/pair_file.h>

#include <cstring>
#include <string_view>

namespace {

/// Keeps the calling thread's error as it is now.
class ErrorKept {
public:
	ErrorKept() : code(VUNKCErrGet()), line(VUNKCErrorGetLine())
	{
		strncpy(file, VUNKCErrorGetFile(), sizeof(file) - 1);
	}
	~ErrorKept() { VUNKCErrSetEx(code, file, line); }
	ErrorKept(const ErrorKept &) = delete;
	ErrorKept &operator=(const ErrorKept &) = delete;

private:
	const int code;
	const int line;
	char file[1024] = "";
};

struct Pairs {
	Pairs() : hash(VUNKCSzHashAlloc(1024)) {}
	~Pairs() { VUNKCSzHashFree(hash); }
	Pairs(const Pairs &) = delete;
	Pairs &operator=(const Pairs &) = delete;

	VUNKSZHASH *hash;
};

bool Declares(const char *key)
{
	Pairs model;
	if (model.hash == nullptr || VUNKCFileGetPair(VUNKC_MODEL_FILE, &model.hash) < 0)
		return false;
	const char *value = VUNKCSzHashGetValue(model.hash, key);
	return value != nullptr && std::string_view(value) == "yes";
}

} // namespace

int VUNKCSupportRAID(void)
{
	const ErrorKept kept;
	return Declares("support_raid");
}
