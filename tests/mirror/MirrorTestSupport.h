// What the mirror's tests share: the running test servers, a private repository root with the
// transfer tool in its working location, and the check log that the mirror writes.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "base/WString.h"
#include "foundation/CFile.h"
#include "mirror/DLParameters.h"
#include "mirror/DLUtils.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "tests/support/TestServers.h"
#include "tests/unit/TestRegistry.h"

// A path handed over by the test driver through the environment; Wine reads a Unix path through
// its Z: drive.
inline WString PathFromEnv(const char* name) {
  const char* v = std::getenv(name);
  if (!v || !*v) return WString();
  WString path = WFromUtf8(v);
#ifdef _WIN32
  if (path[0] == u'/') path = u"Z:" + path;
#endif
  return path;
}

inline std::string ReadBytes(const WString& path) {
  std::string bytes;
  platform::ReadWholeFile(path, bytes);
  return bytes;
}

class MirrorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    servers = TestServers::Load();
    ASSERT_TRUE(servers.loaded) << "EM_TEST_SERVERS names no running test servers";
    root = TestDirectory(u"mirror");
    CFile::RemoveDirectoryTree(root, false);
    // The check log goes below the temporary root of the installation.
    registry.String(u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden\\Setup", u"TempRoot", root);
    work = root + u"/work";
    temp = root + u"/work/temp";
    platform::CreateDirectoryPath(work);
    platform::CreateDirectoryPath(temp);
    WString tool = PathFromEnv("EM_FILEDOWNLOAD");
    ASSERT_FALSE(tool.empty()) << "EM_FILEDOWNLOAD is not set";
    std::string image = ReadBytes(tool);
    ASSERT_FALSE(image.empty()) << WToUtf8(tool);
    WString placed = work + u"/" + DLUtils::TransferToolName();
    ASSERT_TRUE(platform::WriteWholeFile(placed, image.data(), image.size()));
#ifndef _WIN32
    ASSERT_EQ(std::system(("chmod +x '" + WToUtf8(placed) + "'").c_str()), 0);
#endif
    params.SetWorkingLocation(work);
    params.SetScriptLocation(work);
    params.SetDownloadLocation(root + u"/tree");
    params.SetProtocol(0);
    params.SetRemoteServer(WFromUtf8("127.0.0.1:" + std::to_string(servers.httpPort)));
  }
  void TearDown() override {
    CFile::RemoveDirectoryTree(root, true);
  }

  // A folder below the servers' document root for this test, and its remote name.
  WString ServedDir(const std::string& sub) {
    return WFromUtf8(servers.WwwPath(sub));
  }
  WString CheckLog() {
    return WFromUtf8(ReadBytes(root + u"/EM_MENDER/UM_Checknew.log"));
  }

  TestServers servers;
  TestRegistry registry{u"mirror"};
  WString root, work, temp;
  DLParameters params;
};
