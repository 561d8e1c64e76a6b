#include "application.h"

#include "config_access.h"
#include "error_text.h"
#include "failure.h"
#include "kept_file.h"
#include "output.h"
#include "plan_recorder.h"
#include "verification.h"

#include <vunkcore/error.h>

#include <algorithm>

namespace {

bool IsUntouched(const KeptValue &value)
{
	return value.after && IsSameValue(value.path, *value.after, value.before);
}

// After an application. What a failed one has not even begun to change leaves nothing to undo but what was there before.
void Save(const KeptValues &kept, const std::optional<KeptValues> &older)
{
	if (kept.applied || !std::all_of(kept.values.begin(), kept.values.end(), IsUntouched))
		SaveKept(kept);
	else if (older)
		SaveKept(*older);
	else
		RemoveKept();
}

// What the library could not set it has only logged.
void TellOfRefused(const Plan &plan)
{
	size_t refused = 0;
	for (const VerifiedValue &value : Verify(plan, nullptr))
		refused += value.state == VerifiedValue::State::kDiffers ? 1 : 0;
	if (refused > 0)
		Complain("the kernel has refused or changed " + std::to_string(refused) +
		         (refused == 1 ? " value" : " values") + "; \"zevotune verify\" shows which");
}

} // namespace

std::string ApplyKeeping(const std::string &profile, int (*apply)(const std::string &profile))
{
	const ApplicationLock lock;
	const Plan plan = MakePlan(profile);
	KeptValues kept = ValuesToKeep(plan, SelectedProfileIfReadable().value_or(profile));
	const std::optional<KeptValues> older = LoadKept();
	if (older)
		KeepOlderValues(kept, *older);
	SaveKept(kept);

	ForgetErrors();
	const bool applied = apply(profile) == 0;
	// The library gives no reason where it is no error of its own, such as an attribute that the kernel does not have.
	std::string reason = VUNKCErrGet() == VUNKC_ERR_NONE && !plan.failure.empty() ? plan.failure : ErrorText();
	ReadBack(kept, applied);
	try {
		Save(kept, older);
	} catch (const Failure &) {
		// The one from before the application tells what to restore, which is what counts.
	}
	if (!applied)
		return reason;
	TellOfRefused(MakePlan(profile));
	return "";
}
