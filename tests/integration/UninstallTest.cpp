// The uninstall action of the setup program: the module's directories below the host's temp and
// data roots go, with everything in them.
#include <gtest/gtest.h>

#include "foundation/RootPaths.h"
#include "platform/FileIo.h"
#include "tests/integration/IntegrationSupport.h"
#include "tests/unit/TestRegistry.h"

namespace {

const WString kBase = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";

void Fill(const WString& dir) {
  platform::CreateDirectoryPath(dir);
  platform::CreateDirectoryPath(dir + kSep + u"UpdateRepository");
  platform::WriteWholeFile(dir + kSep + u"UpdateRepository" + kSep + u"versionTree.txt", "1", 1);
  platform::WriteWholeFile(dir + kSep + u"UM_Check.log", "x", 1);
}

}  // namespace

TEST(ModuleFile, UninstallRemovesWorkAndDataDirectories) {
  REQUIRE_MODULE_PATH();
  TestRegistry reg(u"uninstall");
  const WString root = TestDirectory(u"uninstall");
  const WString temp = root + kSep + u"temp", data = root + kSep + u"data";
  platform::CreateDirectoryPath(temp);
  platform::CreateDirectoryPath(data);
  reg.String(kBase + u"\\Setup", u"TempRoot", temp);
  reg.String(kBase + u"\\DATA", u"DataRoot", data);
  Fill(temp + kSep + u"EM_MENDER");
  Fill(data + kSep + u"EM_MENDER");
  platform::WriteWholeFile(data + kSep + u"other.txt", "keep", 4);

  ModuleHost host(HostOptions());
  ASSERT_TRUE(host.Load()) << host.LastError();
  EXPECT_EQ(host.Entries().setupAction(3), 1);  // any other action removes nothing
  EXPECT_TRUE(platform::DirectoryExists(temp + kSep + u"EM_MENDER"));
  EXPECT_EQ(host.Entries().setupAction(4), 1);
  EXPECT_FALSE(platform::DirectoryExists(temp + kSep + u"EM_MENDER"));
  EXPECT_FALSE(platform::DirectoryExists(data + kSep + u"EM_MENDER"));
  EXPECT_TRUE(platform::FileExists(data + kSep + u"other.txt"));  // only the module's own directory
  // Nothing left to remove below the temp root: the removal of the directory itself fails.
  EXPECT_EQ(host.Entries().setupAction(4), 0);

  // Equal roots: the one directory is handled once and the result is that removal's.
  reg.String(kBase + u"\\DATA", u"DataRoot", temp);
  Fill(temp + kSep + u"EM_MENDER");
  EXPECT_EQ(host.Entries().setupAction(4), 1);
  EXPECT_FALSE(platform::DirectoryExists(temp + kSep + u"EM_MENDER"));
  platform::RemoveFilePath(data + kSep + u"other.txt");
}
