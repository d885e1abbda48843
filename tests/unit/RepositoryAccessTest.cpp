// Repository access: the volume handed in by its label (found through the volume service, three
// rounds of two seconds when it isn't there), the settings it leaves behind and their reset, the
// label rules of the request, and connecting a remote share with its check-log line.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "config/UM_Config.h"
#include "foundation/CEvent.h"
#include "foundation/CFile.h"
#include "foundation/IUpdateModule.h"
#include "foundation/RequestMessage.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/Clock.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "platform/NetworkShare.h"
#include "platform/Volume.h"
#include "tests/unit/FakeUpdateModule.h"
#include "tests/unit/TestRegistry.h"

namespace {

const WString kBase = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";

using FakeModule = FakeUpdateModule;

class ScopedEnv {
 public:
  ScopedEnv(const char16_t* name, const WString& value) : m_name(name) {
    m_had = platform::GetEnv(name, m_saved);
    platform::SetEnv(name, value);
  }
  ~ScopedEnv() {
    if (m_had)
      platform::SetEnv(m_name, m_saved);
    else
      platform::UnsetEnv(m_name);
  }

 private:
  const char16_t* m_name;
  WString m_saved;
  bool m_had = false;
};

std::string Utf8(const WString& s) {
  return WToUtf8(s);
}

class RepositoryAccessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = TestDirectory(u"repoaccess");
    CFile::RemoveDirectoryTree(root, false);
    platform::CreateDirectoryPath(root + kSep + u"data");
    platform::CreateDirectoryPath(root + kSep + u"temp");
    reg.String(kBase + u"\\DATA", u"DataRoot", root + kSep + u"data");
    reg.String(kBase + u"\\Setup", u"BinRoot", root);
    reg.String(kBase + u"\\Setup", u"TempRoot", root + kSep + u"temp");
    platform::SetClock(&clock);
  }
  void TearDown() override {
    platform::SetClock(nullptr);
    CFile::RemoveDirectoryTree(root, true);
  }

  // A 0x33A8 request with the data already put in by `fill`; the reply's text and status.
  template <typename Fill>
  std::pair<WString, uint32_t> Qltx(UM_Config& c, Fill fill) {
    RequestMessage m;
    ConstructRequest(m, 0x33A8, 0, 0, 0, ST_NONE);
    fill(m, GetCurrentCommand(m));
    EXPECT_EQ(c.request(m), 1);
    WString text;
    GetDataString(m, 0, text, 0);
    return {text, GetCommandValue(m, 0, kKeyST, ST_ABSENT)};
  }
  std::pair<WString, uint32_t> QltxText(UM_Config& c, const WString& label) {
    return Qltx(c, [&](RequestMessage& m, MessageValue& cmd) { SetDataString(m, cmd, label); });
  }
  std::pair<WString, uint32_t> QltxBytes(UM_Config& c, const std::string& bytes) {
    return Qltx(c, [&](RequestMessage& m, MessageValue& cmd) {
      SetDataBytes(m, cmd, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    });
  }
  // The settings as a requester writes them.
  static void WriteNumber(UM_Config& c, uint32_t oe, uint32_t value) {
    RequestMessage m;
    ConstructRequest(m, 0xE002, oe, 0, 0, ST_NONE);
    SetDataNumber(m, GetCurrentCommand(m), value, 1);
    EXPECT_EQ(c.request(m), 1);
  }
  static void WriteText(UM_Config& c, uint32_t oe, const WString& value) {
    RequestMessage m;
    ConstructRequest(m, 0xE002, oe, 0, 0, ST_NONE);
    SetDataString(m, GetCurrentCommand(m), value);
    EXPECT_EQ(c.request(m), 1);
  }
  // The settings as a requester reads them back.
  WString ReadPath(UM_Config& c) {
    RequestMessage m;
    ConstructRequest(m, 0xE001, 6720, 0, 0, ST_NONE);
    c.request(m);
    WString text;
    GetDataString(m, 0, text, 0);
    return text;
  }
  uint32_t ReadMode(UM_Config& c) {
    RequestMessage m;
    ConstructRequest(m, 0xE001, 6721, 0, 0, ST_NONE);
    c.request(m);
    uint32_t v = 99;
    GetDataValue(m, 0, v);
    return v;
  }
  std::string CheckLog(UM_Util& util) {
    std::string text;
    platform::ReadWholeFile(util.umGetLogDir() + kSep + u"UM_Check.log", text);
    return text;
  }

  TestRegistry reg{u"repoaccess"};
  platform::VirtualClock clock;
  WString root;
  FakeModule module;
};

// The line uncConnect writes, as it stands in the check log (text mode: CR LF).
[[maybe_unused]] std::string ConnectLine(const WString& share, const WString& user, const WString& text) {
  return ">>>>ERROR\tconnect to remote repository '" + Utf8(share) + "' for user '" + Utf8(user) + "' failed:\r\n" +
         Utf8(text) + "\r\n";
}

}  // namespace

TEST_F(RepositoryAccessTest, LabelNotFoundWaitsThreeRoundsAndChangesNothing) {
  UM_Util util(&module);
  UM_Config c(&module, &util);
  const WString pathBefore = c.getRepositoryPath();
  const uint8_t modeBefore = c.repositoryAccessMode;
  EXPECT_EQ(QltxText(c, u"NO-SUCH-LABEL-4711"), std::make_pair(WString(u"Can't find volume"), ST_FAILED));
  // Three rounds, with the pause after the last one too.
  EXPECT_EQ(clock.ElapsedMs(), 6000u);
  EXPECT_EQ(c.getRepositoryPath(), pathBefore);
  EXPECT_EQ(c.repositoryAccessMode, modeBefore);
  WString mountPoint = u"stale";
  EXPECT_EQ(UM_Config::GetMountPoint(u"NO-SUCH-LABEL-4711", mountPoint), 4);
  EXPECT_TRUE(mountPoint.empty());
}

TEST_F(RepositoryAccessTest, ByteStreamLabelsMustEndWithTheirTerminatorInsideTheBuffer) {
  UM_Util util(&module);
  UM_Config c(&module, &util);
  const auto noLabel = std::make_pair(WString(u"no label"), ST_FAILED);
  const auto notFound = std::make_pair(WString(u"Can't find volume"), ST_FAILED);
  // Refused before any search: no time passes.
  EXPECT_EQ(QltxBytes(c, std::string(127, 'A') + '\0'), noLabel);  // 128 bytes
  EXPECT_EQ(QltxBytes(c, std::string(300, 'A') + '\0'), noLabel);
  EXPECT_EQ(QltxBytes(c, "LABEL"), noLabel);               // no terminator
  EXPECT_EQ(QltxBytes(c, std::string("\0", 1)), noLabel);  // empty text
  EXPECT_EQ(clock.ElapsedMs(), 0u);
  // 127 bytes with the terminator fit, and are searched for.
  EXPECT_EQ(QltxBytes(c, std::string(126, 'A') + '\0'), notFound);
  EXPECT_EQ(clock.ElapsedMs(), 6000u);
}

TEST_F(RepositoryAccessTest, ResetPutsALocalRepositoryWithoutPathBack) {
  UM_Util util(&module);
  {
    UM_Config c(&module, &util);
    WriteNumber(c, 6721, CQVV_UpdRepositoryVolume);
    WriteText(c, 6720, u"/mnt/volume/zentrove");

    EXPECT_TRUE(c.resetRepositoryAccess());
    EXPECT_EQ(c.repositoryAccessMode, CQVV_UpdRepositoryLocalRW);
    EXPECT_EQ(c.getRepositoryPath(), u"");
    EXPECT_EQ(ReadMode(c), 1u);
    EXPECT_EQ(ReadPath(c), u"");
  }
  // Stored so: the next start has mode 1 and no path, and takes the module's own repository.
  UM_Config c(&module, &util);
  EXPECT_EQ(c.repositoryAccessMode, CQVV_UpdRepositoryLocalRW);
  EXPECT_EQ(c.getRepositoryPath(), c.DefaultRepositoryPath());
}

TEST_F(RepositoryAccessTest, ShareConnectFailuresGoToTheCheckLog) {
  UM_Util util(&module);
  UM_Config c(&module, &util);
  ASSERT_TRUE(util.umStartLogging(u"UM_Check.log", u"UpdateCheck"));
  EXPECT_EQ(c.uncConnect(u"", u"user", u"pw"), -1);  // no share: nothing to log
  EXPECT_EQ(CheckLog(util), "");

#ifdef _WIN32
  // Under Wine every connection fails with "no network"; on Windows this name is not found.
  const WString share = u"\\\\em-no-such-host.invalid\\repository";
#else
  const WString share = root + kSep + u"missing" + kSep + u"repository";
#endif
  EXPECT_EQ(c.uncConnect(share, u"operator", u"secret"), -1);
  const std::string log = CheckLog(util);
  const std::string head =
      ">>>>ERROR\tconnect to remote repository '" + Utf8(share) + "' for user 'operator' failed:\r\n";
  ASSERT_NE(log.find(head), std::string::npos) << log;
  const std::string text = log.substr(log.find(head) + head.size());
  EXPECT_GT(text.size(), 2u) << "the system's text follows the line: " << log;
#ifndef _WIN32
  EXPECT_EQ(text, "The share path does not exist.\r\n");
#endif
  EXPECT_EQ(log.find("secret"), std::string::npos);
  util.umEndLogging();
}

#ifndef _WIN32

// A volume as the POSIX service sees it: a mount table and a directory of label links, both the
// test's own, describing mounts of real directories.
class PosixVolumeTest : public RepositoryAccessTest {
 protected:
  void SetUp() override {
    RepositoryAccessTest::SetUp();
    byLabel = root + u"/by-label";
    volume = root + u"/volume one";
    platform::CreateDirectoryPath(byLabel);
    platform::CreateDirectoryPath(volume);
    platform::CreateDirectoryPath(root + u"/second");
    platform::CreateDirectoryPath(root + u"/bound");
    platform::CreateDirectoryPath(root + u"/share");
    mountInfo = root + u"/mountinfo";
    env1 = std::make_unique<ScopedEnv>(u"EM_MENDER_MOUNTINFO", mountInfo);
    env2 = std::make_unique<ScopedEnv>(u"EM_MENDER_DISK_BY_LABEL", byLabel);
  }
  void TearDown() override {
    env2.reset();
    env1.reset();
    RepositoryAccessTest::TearDown();
  }
  void Link(const std::string& name, const std::string& target) {
    std::filesystem::create_symlink(target, Utf8(byLabel) + "/" + name);
  }
  // A link as udev makes it: relative to the directory of links.
  void RelativeLink(const std::string& name, const std::string& target) {
    Link(name, std::filesystem::path(target).lexically_relative(Utf8(byLabel)).string());
  }
  // The volume's device is one that doesn't exist, so it is known by its name.
  void WriteMounts(const std::string& extra = "") {
    const std::string r = Utf8(root);
    const std::string table =
        "22 27 0:21 / /proc rw,relatime - proc proc rw\n"
        "27 1 254:0 / / rw,relatime - ext4 /dev/em-test-root rw\n"
        "40 27 0:30 / " +
        r +
        " rw - tmpfs tmpfs rw\n"
        // The same file system mounted twice (a space in the path is escaped) and a directory of
        // it bound elsewhere, which is no mount path of the volume.
        "41 40 7:9 / " +
        r +
        "/volume\\040one rw - ext4 /dev/em-test-volume rw\n"
        "42 40 7:9 /sub " +
        r +
        "/bound rw - ext4 /dev/em-test-volume rw\n"
        "43 40 7:9 / " +
        r +
        "/second/ rw shared:1 - ext4 /dev/em-test-volume rw\n"
        "44 40 7:10 / " +
        r +
        "/share rw - cifs //server/repo rw,vers=3.1.1,username=alice,uid=0\n"
        "45 40 7:11 / " +
        r + "/other rw - ext4 /dev/em-test-other rw\n" + extra;
    ASSERT_TRUE(platform::WriteWholeFile(mountInfo, table.data(), table.size()));
  }

  WString byLabel, volume, mountInfo;
  std::unique_ptr<ScopedEnv> env1, env2;
};

TEST_F(PosixVolumeTest, VolumesComeFromTheMountTableAndLabelsFromTheirLinks) {
  WriteMounts();
  // udev escapes a blank in a label as \x20; links may be relative to their directory.
  Link("Zentrum\\x20\xC3\x9C", "/dev/em-test-volume");
  RelativeLink("OTHER", "/dev/em-test-other");
  WString mountPoint;
  EXPECT_EQ(UM_Config::GetMountPoint(u"Zentrum \u00DC", mountPoint), 0);
  EXPECT_EQ(mountPoint, volume + u"/");
  // A label compares exactly.
  EXPECT_EQ(UM_Config::GetMountPoint(u"zentrum \u00DC", mountPoint), 4);
  EXPECT_EQ(mountPoint, u"");

  platform::VolumeSearch search;
  WString name, device;
  std::vector<WString> names;
  for (uint32_t e = search.First(name); e == 0; e = search.Next(name)) names.push_back(name);
  // Block devices only, each once, in the table's order.
  EXPECT_EQ(names,
            (std::vector<WString>{u"\\\\?\\Volume{254:0}\\", u"\\\\?\\Volume{7:9}\\", u"\\\\?\\Volume{7:11}\\"}));
  EXPECT_EQ(search.Next(name), platform::kErrorNoMoreFiles);
  EXPECT_EQ(platform::QueryVolumeDevice(u"Volume{7:9}", device), 0u);
  EXPECT_EQ(device, u"/dev/em-test-volume");
  EXPECT_NE(platform::QueryVolumeDevice(u"Volume{7:99}", device), 0u);

  std::vector<WString> paths;
  uint32_t needed = 0;
  const WString expectedPaths[] = {volume + u"/", root + u"/second/"};
  const uint32_t size = static_cast<uint32_t>(expectedPaths[0].size() + expectedPaths[1].size() + 3);
  EXPECT_EQ(platform::VolumeMountPaths(names[1], size - 1, paths, needed), platform::kErrorMoreData);
  EXPECT_EQ(needed, size);
  EXPECT_TRUE(paths.empty());
  EXPECT_EQ(platform::VolumeMountPaths(names[1], size, paths, needed), 0u);
  EXPECT_EQ(paths, (std::vector<WString>{expectedPaths[0], expectedPaths[1]}));
  EXPECT_EQ(UM_Config::IsMyVolumeLabel(u"\\\\?\\Volume{bad}\\", u"x", mountPoint), 2);

  WString label = u"stale";
  EXPECT_EQ(platform::VolumeLabelAt(u"/", label), 0u);
  EXPECT_EQ(label, u"");
  EXPECT_EQ(platform::VolumeLabelAt(root + u"/other/", label), 0u);
  EXPECT_EQ(label, u"OTHER");
  EXPECT_EQ(platform::VolumeLabelAt(root + u"/second", label), 0u);
  EXPECT_EQ(label, u"Zentrum \u00DC");
  EXPECT_NE(platform::VolumeLabelAt(root + u"/nothing-mounted", label), 0u);
}

TEST_F(PosixVolumeTest, WithoutAUsableTableThereIsNoVolumeList) {
  WString mountPoint;
  EXPECT_EQ(UM_Config::GetMountPoint(u"X", mountPoint), 1);  // no table
  const std::string table = "22 27 0:21 / /proc rw,relatime - proc proc rw\nnot a mount line\n";
  ASSERT_TRUE(platform::WriteWholeFile(mountInfo, table.data(), table.size()));
  EXPECT_EQ(UM_Config::GetMountPoint(u"X", mountPoint), 1);  // no block device in it
}

TEST_F(PosixVolumeTest, LabelFoundPointsTheRepositoryAtTheVolume) {
  WriteMounts();
  Link("WS2012R2SE", "/dev/em-test-volume");
  RelativeLink("ZenTrove", "/dev/em-test-other");
  UM_Util util(&module);
  UM_Config c(&module, &util);
  // No data: the controller's default label.
  EXPECT_EQ(Qltx(c, [](RequestMessage&, MessageValue&) {}), std::make_pair(WString(u"zentrove"), ST_OK));
  EXPECT_EQ(clock.ElapsedMs(), 0u);
  EXPECT_EQ(c.getRepositoryPath(), volume + u"/zentrove");
  EXPECT_EQ(ReadPath(c), volume + u"/zentrove");
  EXPECT_EQ(ReadMode(c), 3u);
  // Data of another kind than text or bytes: the other default label.
  EXPECT_EQ(Qltx(c, [](RequestMessage& m, MessageValue& cmd) { SetDataNumber(m, cmd, 5, 4); }),
            std::make_pair(WString(u"zentrove"), ST_OK));
  EXPECT_EQ(ReadPath(c), root + u"/other/zentrove");
  // A byte-stream label in UTF-8.
  Link("Caf\xC3\xA9", "/dev/em-test-volume");
  EXPECT_EQ(QltxBytes(c, std::string("Caf\xC3\xA9\0", 6)), std::make_pair(WString(u"zentrove"), ST_OK));
  EXPECT_EQ(ReadPath(c), volume + u"/zentrove");
  // Stored: a restart keeps the volume's repository until it is reset.
  UM_Config again(&module, &util);
  EXPECT_EQ(again.repositoryAccessMode, CQVV_UpdRepositoryVolume);
  EXPECT_EQ(again.getRepositoryPath(), volume + u"/zentrove");
}

TEST_F(PosixVolumeTest, ShareMustBeAMountedReadableDirectoryOfTheUser) {
  WriteMounts();
  const WString share = root + u"/share";
  const WString notMounted = root + u"/data";  // below the test's root, an ordinary directory
  UM_Util util(&module);
  UM_Config c(&module, &util);
  ASSERT_TRUE(util.umStartLogging(u"UM_Check.log", u"UpdateCheck"));
  // Mounted for this user, or without naming one: nothing to connect, nothing logged.
  EXPECT_EQ(c.uncConnect(share, u"alice", u"pw"), 0);
  EXPECT_EQ(c.uncConnect(share + u"/", u"WORKGROUP\\Alice", u""), 0);
  EXPECT_EQ(c.uncConnect(volume, u"", u""), 0);
  EXPECT_EQ(CheckLog(util), "");

  EXPECT_EQ(c.uncConnect(share, u"bob", u"pw"), -2);
  EXPECT_NE(CheckLog(util).find(ConnectLine(share, u"bob", u"The share is mounted for another user.")),
            std::string::npos);
  // The root file system's ordinary directories are no share, mounted or not.
  platform::WriteWholeFile(root + u"/temp/file", "x", 1);
  const std::string table = "27 1 254:0 / / rw - ext4 /dev/em-test-root rw\n";
  ASSERT_TRUE(platform::WriteWholeFile(mountInfo, table.data(), table.size()));
  EXPECT_EQ(c.uncConnect(notMounted, u"alice", u"pw"), -1);
  EXPECT_EQ(c.uncConnect(root + u"/temp/file", u"alice", u"pw"), -1);
  const std::string log = CheckLog(util);
  EXPECT_NE(
      log.find(ConnectLine(notMounted, u"alice", u"The share is not mounted: the path lies on the root file system.")),
      std::string::npos)
      << log;
  EXPECT_NE(log.find(ConnectLine(root + u"/temp/file", u"alice", u"The share path is not a directory.")),
            std::string::npos)
      << log;
  util.umEndLogging();
}

TEST_F(PosixVolumeTest, RemoteModeConnectsTheShareAtStart) {
  WriteMounts();
  UM_Util util(&module);
  {
    UM_Config c(&module, &util);
    WriteNumber(c, 6721, CQVV_UpdRepositoryRemote);
    WriteText(c, 6720, root + u"/share");
    WriteText(c, 6722, u"carol");
  }
  ASSERT_TRUE(util.umStartLogging(u"UM_Check.log", u"UpdateCheck"));
  UM_Config c(&module, &util);
  // The stored user differs from the mount's: the start tried to connect and logged why not.
  EXPECT_NE(CheckLog(util).find(ConnectLine(root + u"/share", u"carol", u"The share is mounted for another user.")),
            std::string::npos)
      << CheckLog(util);
  EXPECT_EQ(c.uncConnect(), -2);
  util.umEndLogging();
}

TEST(PosixShare, TheSystemsOwnMountsServeAsShares) {
  // The real mount table: /proc is mounted on every Linux system and can be read.
  EXPECT_EQ(platform::ConnectShare(u"/proc", u"", u""), 0u);
  EXPECT_EQ(platform::ConnectShare(u"/proc/no/such/dir", u"", u""), platform::kErrorBadNetPath);
  // An error without a counterpart keeps the system's own text.
  EXPECT_EQ(platform::SystemErrorText(0x20000000u | 5u), u"Input/output error");
}

#else  // _WIN32

// The system's own volumes (under Wine the drives C: and Z:) in the shape the search relies on.
TEST(WindowsVolumes, NamesDevicesAndMountPathsOfTheSystemsVolumes) {
  platform::VolumeSearch search;
  WString name;
  ASSERT_EQ(search.First(name), 0u);
  int withPaths = 0;
  do {
    ASSERT_GT(name.size(), 5u);
    EXPECT_EQ(name.substr(0, 4), u"\\\\?\\") << Utf8(name);
    EXPECT_EQ(name.back(), u'\\') << Utf8(name);
    WString device;
    EXPECT_EQ(platform::QueryVolumeDevice(name.substr(4, name.size() - 5), device), 0u) << Utf8(name);
    EXPECT_FALSE(device.empty());
    std::vector<WString> paths;
    uint32_t needed = 0;
    const uint32_t first = platform::VolumeMountPaths(name, 1, paths, needed);
    if (first == platform::kErrorMoreData) {
      // The size reported is enough for the whole list.
      ASSERT_EQ(platform::VolumeMountPaths(name, needed, paths, needed), 0u) << Utf8(name);
      ASSERT_FALSE(paths.empty());
      EXPECT_EQ(paths[0].back(), u'\\');
      WString label;
      EXPECT_EQ(platform::VolumeLabelAt(paths[0], label), 0u) << Utf8(paths[0]);
      ++withPaths;
    }
  } while (search.Next(name) == 0);
  EXPECT_EQ(search.Next(name), platform::kErrorNoMoreFiles);
  EXPECT_GT(withPaths, 0);
}

#endif
