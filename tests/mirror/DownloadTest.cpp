// Transfers as the mirror makes them: the real transfer tool against nginx, tinyproxy and the
// fault server, supervised by DLUtils, with the waits of the design on a virtual clock.
#include <random>
#include <string>

#include "base/WFormat.h"
#include "platform/Clock.h"
#include "tests/mirror/MirrorTestSupport.h"
#include "tests/unit/FakeUpdateModule.h"

namespace {

std::string Payload(size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(static_cast<char>((i * 7 + i / 251) & 0xFF));
  return s;
}

// Installs a virtual clock for one test: the waits of the design take no real time.
class VirtualTime {
 public:
  VirtualTime() { platform::SetClock(&clock); }
  ~VirtualTime() { platform::SetClock(nullptr); }
  platform::VirtualClock clock{1700000000u, 20};
};

class DownloadTest : public MirrorTest {};

}  // namespace

TEST_F(DownloadTest, FetchesOverHttpHttpsAndBothProxies) {
  WString served = ServedDir("dl");
  std::string body = Payload(70000);
  platform::WriteWholeFile(served + u"/pkg one.bin", body.data(), body.size());
  DLUtils utils(nullptr, &params, temp);

  // Plain http; the check log says what is being fetched.
  ASSERT_EQ(utils.Download(params.GetRemoteServer(), u"dl/pkg one.bin", root + u"/a.bin"), 0);
  EXPECT_EQ(ReadBytes(root + u"/a.bin"), body);
  EXPECT_NE(CheckLog().find(u"Downloading 'dl/pkg one.bin' ..."), WString::npos) << WToUtf8(CheckLog());
  // The output files of the tool are gone. (Under Wine the child's copies of their handles close
  // a moment after its end is signalled; the removal is then pending until they do.)
  std::vector<platform::DirEntry> left;
  for (int i = 0; i < 50; ++i) {
    left.clear();
    platform::ListDirectory(temp, left);
    if (left.empty()) break;
    platform::SleepRealMicros(100000);
  }
  EXPECT_TRUE(left.empty()) << (left.empty() ? std::string() : WToUtf8(left[0].name));

  // Through the open proxy, and through the one that wants a user and a password. The server is
  // named "localhost": Wine's WinHTTP sends no proxy request for a server on the proxy's address.
  params.SetRemoteServer(WFromUtf8("localhost:" + std::to_string(servers.httpPort)));
  params.SetProxyMode(2);
  params.SetProxyServer(u"127.0.0.1");
  params.SetProxyPort(servers.proxyPort);
  ASSERT_EQ(utils.Download(params.GetRemoteServer(), u"dl/pkg one.bin", root + u"/b.bin", 2), 0);
  EXPECT_EQ(ReadBytes(root + u"/b.bin"), body);
  params.SetProxyPort(servers.authProxyPort);
  EXPECT_NE(utils.Download(params.GetRemoteServer(), u"dl/pkg one.bin", root + u"/c.bin", 2), 0);
  EXPECT_FALSE(platform::FileExists(root + u"/c.bin"));
  params.SetProxyUser(WFromUtf8(servers.proxyUser));
  params.SetProxyPassword(WFromUtf8(servers.proxyPassword));
  ASSERT_EQ(utils.Download(params.GetRemoteServer(), u"dl/pkg one.bin", root + u"/c.bin", 2), 0);
  EXPECT_EQ(ReadBytes(root + u"/c.bin"), body);
  params.SetProxyMode(0);

#ifndef _WIN32
  // The system's proxy: on Linux the environment names it. A proxy that does not answer fails
  // the transfer, so the setting is seen to be used.
  params.SetProxyMode(1);
  platform::SetEnv(u"http_proxy", WFromUtf8("http://127.0.0.1:" + std::to_string(servers.proxyPort)));
  EXPECT_EQ(utils.Download(params.GetRemoteServer(), u"dl/pkg one.bin", root + u"/p.bin", 2), 0);
  EXPECT_EQ(ReadBytes(root + u"/p.bin"), body);
  platform::SetEnv(u"http_proxy", u"http://127.0.0.1:1");
  EXPECT_NE(utils.Download(params.GetRemoteServer(), u"dl/pkg one.bin", root + u"/q.bin", 2), 0);
  platform::UnsetEnv(u"http_proxy");
  params.SetProxyMode(0);
#endif

  // https with the test CA that the environment names (by name: Wine's WinHTTP matches a server
  // only against the certificate's DNS names).
  platform::SetEnv(u"EM_MENDER_CA_FILE", WFromUtf8(servers.caFile));
  params.SetProtocol(1);
  params.SetRemoteServer(WFromUtf8("localhost:" + std::to_string(servers.httpsPort)));
  EXPECT_EQ(utils.Download(params.GetRemoteServer(), u"dl/pkg one.bin", root + u"/d.bin", 2), 0);
  EXPECT_EQ(ReadBytes(root + u"/d.bin"), body);
  platform::UnsetEnv(u"EM_MENDER_CA_FILE");
  EXPECT_NE(utils.Download(params.GetRemoteServer(), u"dl/pkg one.bin", root + u"/e.bin", 2), 0);
  EXPECT_FALSE(platform::FileExists(root + u"/e.bin"));
}

TEST_F(DownloadTest, AFailedTransferLeavesTheToolsErrorInTheCheckLog) {
  ServedDir("dl");
  DLUtils utils(nullptr, &params, temp);
  int rc = utils.Download(params.GetRemoteServer(), u"dl/missing.txt", root + u"/m.txt");
  EXPECT_NE(rc, 0);
  EXPECT_NE(rc, -1);
  WString log = CheckLog();
  EXPECT_NE(log.find(WFormat(u"Downloading file 'dl/missing.txt' failed. (returncode=%d)", rc)), WString::npos)
      << WToUtf8(log);
  EXPECT_NE(log.find(u"Download error information:"), WString::npos);
  EXPECT_NE(log.find(u"404"), WString::npos) << "the tool's standard error belongs in the log";
  EXPECT_FALSE(platform::FileExists(root + u"/m.txt"));

  // The silent mode writes nothing; a working location without the tool is -1.
  WString before = CheckLog();
  EXPECT_NE(utils.Download(params.GetRemoteServer(), u"dl/missing.txt", root + u"/m.txt", 2), 0);
  EXPECT_EQ(CheckLog(), before);
  params.SetWorkingLocation(root + u"/nowhere");
  EXPECT_EQ(utils.Download(params.GetRemoteServer(), u"dl/x", root + u"/m.txt", 2), -1);
}

TEST_F(DownloadTest, AHangingServerIsCutOffAfterThreeMinutes) {
  VirtualTime time;
  params.SetRemoteServer(WFromUtf8("127.0.0.1:" + std::to_string(servers.faultPort)));
  DLUtils utils(nullptr, &params, temp);
  EXPECT_EQ(utils.Download(params.GetRemoteServer(), u"hang/versionTree.txt", root + u"/h.txt", 2), 259);
  EXPECT_GE(time.clock.ElapsedMs(), 181000u);
  EXPECT_LE(time.clock.ElapsedMs(), 182000u);
  EXPECT_FALSE(platform::FileExists(root + u"/h.txt"));
}

TEST_F(DownloadTest, AWrongSizeIsFetchedOnceMoreAfterThirtySeconds) {
  VirtualTime time;
  FakeUpdateModule module;
  params.SetRemoteServer(WFromUtf8("127.0.0.1:" + std::to_string(servers.faultPort)));
  DLUtils utils(&module, &params, temp);
  // The fault server gives 10 bytes the first time and 12 the second.
  WString toggling = WFormat(u"toggle/10/12/%u/f.txt", static_cast<unsigned>(std::random_device{}()));
  EXPECT_EQ(utils.DownloadPlusVerifySize(params.GetRemoteServer(), toggling, root + u"/f.txt", 12), 0);
  EXPECT_GE(time.clock.ElapsedMs(), 30000u);  // the polls of the two runs add to it
  EXPECT_EQ(DLUtils::GetFileLength(root + u"/f.txt"), 12);

  // Wrong both times: -1 after one repetition, and only the last try reports.
  uint64_t before = time.clock.ElapsedMs();
  EXPECT_EQ(utils.DownloadPlusVerifySize(params.GetRemoteServer(), u"bytes/10/f.txt", root + u"/g.txt", 11), -1);
  EXPECT_GE(time.clock.ElapsedMs() - before, 30000u);
  WString log = CheckLog();
  size_t first = log.find(u"Downloading 'bytes/10/f.txt' ...");
  ASSERT_NE(first, WString::npos);
  EXPECT_EQ(log.find(u"Downloading 'bytes/10/f.txt' ...", first + 1), WString::npos);

  // A tool that fails and leaves no file: repeated as well (without a module, at once).
  DLUtils bare(nullptr, &params, temp);
  WString failing = WFormat(u"status/500/%u/f.txt", static_cast<unsigned>(std::random_device{}()));
  EXPECT_EQ(bare.DownloadPlusVerifySize(params.GetRemoteServer(), failing, root + u"/h.txt", 3), -1);
  ASSERT_EQ(bare.Download(params.GetRemoteServer(), u"count/" + failing, root + u"/count.txt", 2), 0);
  EXPECT_EQ(ReadBytes(root + u"/count.txt"), "2");
}
