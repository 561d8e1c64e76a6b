#ifndef TESTS_UNIT_INTERNALS_SECTION_TEST_H
#define TESTS_UNIT_INTERNALS_SECTION_TEST_H

// What the tests of all sections that go to devices have in common.

#include "kit/faults.h"
#include "kit/files.h"
#include "kit/journal.h"
#include "kit/lab.h"
#include "kit/machine.h"
#include "kit/storage.h"

#include "utils/apply/section.h"

#include <vunkcore/error.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

inline const std::string kFault = "[0xFA17 fault:1]";

class SectionTest : public kit::LabTest {
protected:
	using Handler = int (*)(const SectionPlace &);

	explicit SectionTest(Handler sectionHandler) : handler(sectionHandler) { VUNKCErrSetEx(0, "", 0); }

	// Applies a section of this name and text.
	int Apply(const std::string &section, const std::string &text)
	{
		kit::WriteFile(path, "[main]\n[" + section + "]\n" + text);
		const Profile profile;
		return handler({path.c_str(), section.c_str(), profile, kernel});
	}

	// Each way in which reading the section can fail ends it with one line, before any device is asked for.
	void ExpectToFailUnread(const std::string &section, const std::string &text)
	{
		const struct {
			const char *function;
			std::string line;
		} rows[] = {
			{"VUNKCSzHashAlloc", "utils.cpp Failed to VUNKCSzHashAlloc()." + kFault},
			{"VUNKCSzListAlloc", "utils.cpp Failed to VUNKCSzListAlloc" + kFault},
			{"VUNKCFileGetSection",
		         "utils.cpp Failed to get section [" + section + "] from path [" + path + "]. " + kFault},
			{"VUNKCSzHashEnumKey", "utils.cpp Failed to enum hash key"},
		};
		for (const auto &row : rows) {
			SCOPED_TRACE(row.function);
			journal.Clear();
			const kit::Fault fault(row.function);
			EXPECT_EQ(Apply(section, text), -1);
			EXPECT_EQ(journal.Lines(), Lines{row.line});
			EXPECT_EQ(VUNKCErrGet(), kit::kFaultCode);
		}
		EXPECT_EQ(storage.calls, Lines{});
	}

	kit::MountPoint sys{"sys", "/sys", "tmpfs", 0, "mode=0755"};
	kit::TempDir dir;
	const std::string path = dir.Path("profile");
	kit::Journal journal;
	kit::FakeStorage storage;
	kit::Writes writes;
	KernelWriter kernel;

private:
	const Handler handler;
};

#endif
