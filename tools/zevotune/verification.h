#ifndef ZEVOTUNE_VERIFICATION_H
#define ZEVOTUNE_VERIFICATION_H

// Which values of a profile hold.

#include "kept_values.h"
#include "plan.h"
#include "style.h"

#include <string>
#include <vector>

struct VerifiedValue {
	enum class State {
		kHolds,
		kChanged, // held when the profile was applied
		kRefused, // did not even then
		kDiffers, // and it is not known whether it ever held
		kUnread,
		kUnknown // to this kernel, which is no fault of the profile's
	};
	State state;
	PlaceOfWrite place;
};

/// The values that would stay if the profile was applied. `kept` is of the profile's last application, or null.
std::vector<VerifiedValue> Verify(const Plan &plan, const KeptValues *kept);

/// Whether all of them hold that the kernel knows.
bool Holds(const std::vector<VerifiedValue> &values);

std::string VerificationText(const Plan &plan, const std::vector<VerifiedValue> &values, const Look &look);
Json::Value VerificationJson(const Plan &plan, const std::vector<VerifiedValue> &values);

#endif
