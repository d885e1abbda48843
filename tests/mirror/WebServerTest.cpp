// Whether the download server's tree is being updated: Stop.txt at the size that
// UpdateIndicatorFile.txt gives, one byte off, missing; the wait for the end of such an update.
#include <random>
#include <string>

#include "base/WFormat.h"
#include "mirror/DLWebServer.h"
#include "mirror/DownloadLocation.h"
#include "platform/Clock.h"
#include "tests/mirror/MirrorTestSupport.h"
#include "tests/unit/FakeUpdateModule.h"

namespace {

class WebServerTest : public MirrorTest {
 protected:
  void SetUp() override {
    MirrorTest::SetUp();
    if (HasFatalFailure()) return;
    served = ServedDir("ws");
    params.SetRemoteLocation(u"ws");
    ASSERT_EQ(location.BuildStructure(params), 0);
    Indicator("NAME=Stop.txt\r\nSIZE=4711\r\n");
  }
  void Indicator(const std::string& text) {
    platform::WriteWholeFile(work + u"/UpdateIndicatorFile.txt", text.data(), text.size());
  }
  void Stop(const WString& dir, size_t size) {
    platform::CreateDirectoryPath(dir);
    std::string body(size, 'x');
    platform::WriteWholeFile(dir + u"/Stop.txt", body.data(), body.size());
  }
  WString served;
  DownloadLocation location;
};

}  // namespace

TEST_F(WebServerTest, StopFileAtTheIndicatorSizeMeansAnUpdateRuns) {
  DLWebServer server(nullptr, &params, &location);
  int active = -1;
  Stop(served, 4711);
  ASSERT_EQ(server.IsUpdateActive(u"", active), 0);
  EXPECT_EQ(active, 1);
  EXPECT_EQ(server.IndicatorFileSize(), 4711);
  EXPECT_EQ(server.IndicatorFileName(), u"Stop.txt");
  Stop(served, 4712);
  ASSERT_EQ(server.IsUpdateActive(u"", active), 0);
  EXPECT_EQ(active, 0);
  Stop(served + u"/ZenTrove", 4711);
  ASSERT_EQ(server.IsUpdateActive(u"ZenTrove", active), 0);
  EXPECT_EQ(active, 1);
  // The fetched copy does not stay in the temp directory.
  EXPECT_FALSE(platform::FileExists(location.GetTempDir() + u"/_Stop.txt"));

  // No Stop.txt: the tool fails and leaves no file, which makes the question fail.
  platform::RemoveFilePath(served + u"/Stop.txt");
  EXPECT_EQ(server.IsUpdateActive(u"", active), -1);
  EXPECT_EQ(active, 0);

  // A tool that cannot be started counts as no update running.
  params.SetWorkingLocation(root + u"/nowhere");
  ASSERT_EQ(server.IsUpdateActive(u"", active), 0);
  EXPECT_EQ(active, 0);
}

TEST_F(WebServerTest, TheIndicatorFileIsReadOnceAndMustGiveASize) {
  Stop(served, 4711);
  int active = -1;
  {
    Indicator("NAME=Stop.txt\r\n");
    DLWebServer server(nullptr, &params, &location);
    EXPECT_EQ(server.IsUpdateActive(u"", active), -1);  // "SIZE not found"
  }
  {
    Indicator("SIZE=4711\r\n");  // no NAME line is no failure
    DLWebServer server(nullptr, &params, &location);
    ASSERT_EQ(server.IsUpdateActive(u"", active), 0);
    EXPECT_EQ(active, 1);
    Indicator("SIZE=5\r\n");  // read once per object
    ASSERT_EQ(server.IsUpdateActive(u"", active), 0);
    EXPECT_EQ(active, 1);
  }
  platform::RemoveFilePath(work + u"/UpdateIndicatorFile.txt");
  DLWebServer server(nullptr, &params, &location);
  EXPECT_EQ(server.IsUpdateActive(u"", active), -1);
}

TEST_F(WebServerTest, TheWaitEndsWithTheUpdateOrAfterTwoHours) {
  platform::VirtualClock clock(1700000000u, 20);
  platform::SetClock(&clock);
  FakeUpdateModule module;
  {
    Stop(served, 1);
    DLWebServer server(&module, &params, &location);
    EXPECT_EQ(server.WaitOnUpdateFinished(u""), 0);
    EXPECT_LT(clock.ElapsedMs(), 120000u);
  }
  {
    Stop(served, 4711);
    DLWebServer server(&module, &params, &location);
    uint64_t before = clock.ElapsedMs();
    EXPECT_EQ(server.WaitOnUpdateFinished(u""), -1);
    uint64_t waited = clock.ElapsedMs() - before;
    EXPECT_GT(waited, 7200000u);
    EXPECT_LT(waited, 7200000u + 2 * 121000u);  // at most one further pause and its fetch
  }
  {
    // A server whose update ends while we wait: Stop.txt shrinks between two looks.
    params.SetRemoteServer(WFromUtf8("127.0.0.1:" + std::to_string(servers.faultPort)));
    params.SetRemoteLocation(WFormat(u"toggle/4711/3/%u", static_cast<unsigned>(std::random_device{}())));
    DLWebServer server(&module, &params, &location);
    uint64_t before = clock.ElapsedMs();
    EXPECT_EQ(server.WaitOnUpdateFinished(u""), 0);
    EXPECT_GE(clock.ElapsedMs() - before, 120000u);
  }
  platform::SetClock(nullptr);
}
