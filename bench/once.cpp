// Does one operation a given number of times, for tools that count: zevotuned_once OPERATION TIMES.

#include "machines.h"

#include <vunkcore/hash.h>
#include <vunkcore/list.h>
#include <zevotuned/zevotuned.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

int Get()
{
	VUNKSZHASH *hash = VUNKCSzHashAlloc(1024);
	const int result = TunedConfigGet(&hash);
	VUNKCSzHashFree(hash);
	return result;
}

int List()
{
	VUNKSZLIST *names = VUNKCSzListAlloc(1024);
	const int result = TuneProfileList(&names);
	VUNKCSzListFree(names);
	return result;
}

struct Operation {
	std::string_view name;
	int (*once)();
	void (*setUp)() = nullptr;
};

constexpr Operation kOperations[] = {
	{"config-get", Get},
	{"config-set", [] { return TuneSetKeyValueToConfig("lock", "false"); }},
	{"list", List},
	{"apply", [] { return TuneApplyProfile("performance_latency"); }},
	{"apply-disk", [] { return TuneApplyProfile("bench_disk"); }, bench::HaveBays},
	{"apply-raid", [] { return TuneApplyProfile("bench_raid"); }, bench::HaveBays},
};

} // namespace

int main(int argc, char **argv)
{
	for (const Operation &operation : kOperations) {
		if (argc != 3 || operation.name != argv[1])
			continue;
		if (operation.setUp != nullptr)
			operation.setUp();
		for (int i = atoi(argv[2]); i > 0; --i)
			if (operation.once() != 0)
				return 1;
		return 0;
	}
	fprintf(stderr, "usage: zevotuned_once config-get|config-set|list|apply|apply-disk|apply-raid TIMES\n");
	return 2;
}
