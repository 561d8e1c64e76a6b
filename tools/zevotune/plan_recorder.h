#ifndef ZEVOTUNE_PLAN_RECORDER_H
#define ZEVOTUNE_PLAN_RECORDER_H

#include "plan.h"
#include "profile_text.h"

#include "utils/apply/writer.h"

#include <map>
#include <optional>
#include <string>

/// Stands in for the kernel while a profile is applied: writes down what would be written, and writes nothing.
class PlanRecorder final : public ParameterWriter {
public:
	explicit PlanRecorder(Plan &toFill) : plan(toFill) {}

	int ApplyProfile(const char *szProfile) override;
	int ApplyGlobalProfiles() override;
	int RunSysctl(const char *szSysctl) override;
	int WriteParameter(const char *szPath, const char *szValue, unsigned long cbValue) override;
	int WriteThreadLimit(const char *szPath, int nThreadMax) override;
	bool HasTunable(const char *szPath) override;
	void OnSection(const SectionPlace &place) override;
	void OnKey(const char *szKey, const char *szValue) override;
	void OnPassedOver(const char *szWhat, const char *szWhy) override;

private:
	PlannedKey &Key() const { return plan.sections.back().keys.back(); }
	PlannedWrite &Add(const std::string &target, const std::string &path, const std::string &value);
	int RequireAttribute(const std::string &path);
	void MarkOverwritten(const std::string &path);
	void MarkTunablesOverwritten(const std::string &schedulerPath);
	std::string NoteOnRatio() const;
	const ProfileText &TextOf(const std::string &path);

	Plan &plan;
	std::map<std::string, ProfileText> texts;    // by path
	std::map<std::string, std::string> selected; // schedulers that would differ from now, by the path of their file
	std::string memoryMax;                       // of the file that is applied
	bool inGlobal = false;
	int inherited = -1;          // how many profiles further down than the selected one
	std::string unknownTunables; // the scheduler whose tunables HasTunable could not find out just now
};

/// What TuneApplyProfile would do now. A failure on the way is part of the plan. Throws Failure when a profile's file cannot
/// be read a second time.
Plan MakePlan(const std::string &profile);

#endif
