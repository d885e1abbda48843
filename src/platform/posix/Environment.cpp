#include "platform/Environment.h"

#include <cstdlib>

namespace platform {

bool GetEnv(WStringView name, WString& value) {
  const char* v = std::getenv(WToUtf8(name).c_str());
  if (!v) return false;
  value = WFromUtf8(v);
  return true;
}

bool SetEnv(WStringView name, WStringView value) {
  return ::setenv(WToUtf8(name).c_str(), WToUtf8(value).c_str(), 1) == 0;
}

bool UnsetEnv(WStringView name) {
  return ::unsetenv(WToUtf8(name).c_str()) == 0;
}

}  // namespace platform
