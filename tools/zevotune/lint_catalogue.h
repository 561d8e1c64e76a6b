#ifndef ZEVOTUNE_LINT_CATALOGUE_H
#define ZEVOTUNE_LINT_CATALOGUE_H

#include "catalogue_check.h"
#include "lint.h"

/// What [main] of a file says, whether the file could be applied or not.
Profile ProfileOf(const std::string &path, const ProfileText &text);

/// What is wrong with a profile among others, itself one of them: its name, its index, and whom it inherits from.
LintFindings LintAmong(const Catalogue &catalogue, const Profile &profile, const ProfileText &text, bool isGlobal);

#endif
