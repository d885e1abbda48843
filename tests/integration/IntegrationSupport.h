// What every integration test needs: the module file that ctest names in EM_MENDER_MODULE.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "hostlib/ModuleHost.h"
#include "platform/Environment.h"

inline std::u16string ModuleUnderTest() {
  WString path;
  platform::GetEnv(u"EM_MENDER_MODULE", path);
#ifdef _WIN32
  // Under Wine the build hands over a Unix path; the Windows side reaches it through drive Z:.
  if (!path.empty() && path[0] == u'/') {
    for (char16_t& c : path)
      if (c == u'/') c = u'\\';
    path = u"Z:" + path;
  }
#endif
  return path;
}

inline ModuleHost::Options HostOptions() {
  ModuleHost::Options options;
  options.modulePath = ModuleUnderTest();
  return options;
}

// Fails the test at once when the module file is not named.
#define REQUIRE_MODULE_PATH() ASSERT_FALSE(ModuleUnderTest().empty()) << "EM_MENDER_MODULE names no module file"
