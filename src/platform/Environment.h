// Environment variables of the process.
#pragma once

#include "base/WString.h"

namespace platform {

// True when the variable exists (its value may be empty).
bool GetEnv(WStringView name, WString& value);
bool SetEnv(WStringView name, WStringView value);
bool UnsetEnv(WStringView name);

// Expands %NAME% references from the environment as the system does for expandable registry
// strings: an unknown name stays as written, "%%" is not special.
WString ExpandEnvironment(WStringView text);

}  // namespace platform
