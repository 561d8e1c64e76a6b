#ifndef ZEVOTUNE_PLAN_OUTPUT_H
#define ZEVOTUNE_PLAN_OUTPUT_H

#include "plan.h"
#include "style.h"

#include <json/value.h>

#include <string>

std::string PlanText(const Plan &plan, const Look &look);
Json::Value PlanJson(const Plan &plan);

/// The value, or its reason in parentheses.
std::string ValueText(const KernelValue &value);

#endif
