#ifndef TESTS_KIT_NTH_CALL_H
#define TESTS_KIT_NTH_CALL_H

#include <functional>
#include <string>

namespace kit {

enum class Calls {
	Platform, // calls of the platform's libraries
	System,   // system calls, by the C library's functions, of the library and of the platform's libraries
};

/// While the object lives, the nth call of a kind fails (n from 1), or, with `Kill`, is the last thing that the process
/// does not do. Calls of children that it forks meanwhile count as well. Objects do not nest.
class NthCall {
public:
	enum Effect { Fail, Kill };

	NthCall(Calls calls, int n, Effect effect = Fail);
	~NthCall();
	NthCall(const NthCall &) = delete;
	NthCall &operator=(const NthCall &) = delete;

	/// Whether the nth call was made, and which function it was.
	bool Struck() const;
	std::string Function() const;
};

/// The function that the last NthCall let fail; empty when it let none.
std::string StruckFunction();

/// While the object lives, something is done once, before the nth call of a kind (n from 1) that this process makes. Its own
/// calls do not count. Objects do not nest.
class BeforeNth {
public:
	BeforeNth(Calls calls, int n, std::function<void()> run);
	~BeforeNth();
	BeforeNth(const BeforeNth &) = delete;
	BeforeNth &operator=(const BeforeNth &) = delete;
};

/// What an interposed function asks first: whether it is to fail now. The function of a system call that changes nothing
/// is passed over where calls are counted for killing.
bool IsNth(Calls calls, const char *function, bool changesState = false);

/// Something that changes the machine and is no system call that could fail: it only counts for killing.
void CountChange(const char *what);

/// While it lives, the thread's own calls do not count: the kit's, from within an interposed function.
class Uncounted {
public:
	Uncounted();
	~Uncounted();
	Uncounted(const Uncounted &) = delete;
	Uncounted &operator=(const Uncounted &) = delete;
};

} // namespace kit

#endif
