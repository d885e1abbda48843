// What the tests of the tree update share: a server tree that repotool builds below nginx's
// document root (a folder of its own per test), the server's own view of its files, a snapshot of
// directories to show what changed, and nginx's access log to show what was fetched.
#pragma once

#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "foundation/CFile.h"
#include "foundation/TextLineReader.h"
#include "foundation/VersionLine.h"
#include "mirror/DLZTTree.h"
#include "mirror/DownloadLocation.h"
#include "platform/Clock.h"
#include "tests/mirror/MirrorTestSupport.h"
#include "tests/unit/FakeUpdateModule.h"

// Relative path (with "/") to content; a directory reads as "<dir>".
using Snapshot = std::map<WString, std::string>;

// The sample leaves folders the tests share go when all tests have run.
class SampleLeavesCleanup : public ::testing::Environment {
 public:
  void TearDown() override { CFile::RemoveDirectoryTree(TestDirectory(u"treeupd_leaves"), true); }
};
inline ::testing::Environment* const kSampleLeavesCleanup =
    ::testing::AddGlobalTestEnvironment(new SampleLeavesCleanup);

class ServedTreeTest : public MirrorTest {
 protected:
  void SetUp() override {
    MirrorTest::SetUp();
    if (HasFatalFailure()) return;
    repotool = PathFromEnv("EM_REPOTOOL");
    stub = PathFromEnv("EM_SFX_STUB");
    ASSERT_FALSE(repotool.empty() || stub.empty()) << "EM_REPOTOOL and EM_SFX_STUB must name the tools";
    // A folder of its own per test: the access log counts requests by their path, and a tree of
    // an earlier run of the same test is thrown away.
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    remote = std::string("treeupd/") + info->test_suite_name() + "." + info->name();
    served = ServedDir(remote);
    CFile::RemoveDirectoryTree(served, false);
    repo = root + u"/tree";
    params.SetRemoteLocation(WFromUtf8(remote));
    ASSERT_EQ(location.BuildStructure(params), 0);
    m_logStart = AccessLog().size();  // earlier runs of the same test asked for the same paths
    // The design's waits (30 s before a second try, a transfer's polls of one second, 120 s
    // between looks at Stop.txt) pass on this clock without real sleeps.
    platform::SetClock(&clock);
  }
  void TearDown() override {
    platform::SetClock(nullptr);
    CFile::RemoveDirectoryTree(served, true);
    MirrorTest::TearDown();
  }

  static std::string Quote(const WString& text) { return "\"" + WToUtf8(text) + "\""; }

  // Runs repotool; false (with its output in the failure message) when it fails.
  ::testing::AssertionResult Tool(std::initializer_list<WString> args) {
    WString outFile = root + u"/repotool.txt";
    std::string command = Quote(repotool);
    for (const WString& arg : args) command += " " + Quote(arg);
    command += " >" + Quote(outFile) + " 2>&1";
#ifdef _WIN32
    command = "\"" + command + "\"";  // cmd /c takes the outer quotes away
#endif
    int rc = std::system(command.c_str());
    if (rc == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << command << " gave " << rc << ": " << ReadBytes(outFile);
  }
  // A sample of `count` leaves built into the served folder; the client's indicator file goes to
  // the working location. The same count gives the same sample: it is made once per process and
  // only read afterwards.
  ::testing::AssertionResult BuildTree(int count) {
    static std::set<int> sampled;
    leaves = TestDirectory(u"treeupd_leaves") + u"/" + Decimal(count);
    if (sampled.count(count) == 0) {
      CFile::RemoveDirectoryTree(leaves, true);
      ::testing::AssertionResult made = Tool({u"sample", u"--leaves", leaves, u"--count", Decimal(count)});
      if (!made) return made;
      sampled.insert(count);
    }
    return Rebuild();
  }
  // The same leaves built again over the tree: every line well-formed, the tree version one up.
  ::testing::AssertionResult Rebuild() {
    return Tool({u"build", u"--leaves", leaves, u"--out", served, u"--stub", stub, u"--client", work});
  }
  static WString Decimal(long long n) {
    return WFromUtf8(std::to_string(n));
  }

  // The server's versionAll.txt and the information tree, unpacked apart from the client's work.
  std::vector<VersionLineInfo> ServerLines() {
    WString dir = Unpacked(u"versionAll.exe");
    std::vector<VersionLineInfo> lines;
    TextLineReader reader;
    if (!reader.Open(dir + u"/versionAll.txt")) return lines;
    WString text;
    while (reader.ReadLine(text, versionline::kVersionLineChars)) {
      VersionLineInfo info;
      if (versionline::ParseStrict(text, info) == versionline::kFull) lines.push_back(info);
    }
    return lines;
  }
  WString ServerPar() {
    return Unpacked(u"ZT_par_tree.exe");
  }
  // A served archive (its path below the tree) unpacked into a fresh folder, whose path it returns.
  WString Unpacked(const WString& servedFile) {
    WString name = servedFile.substr(servedFile.rfind(u'/') + 1);
    WString dir = root + u"/server_view/" + Decimal(++m_views);
    CFile::RemoveDirectoryTree(dir, false);
    MakeDirs(dir);
    DLUtils utils(nullptr, &params, location.GetTempDir());
    EXPECT_EQ(utils.CopyFilePriv(served + u"/" + servedFile, dir + u"/" + name, DLUtils::kBinaryMode), 0)
        << WToUtf8(servedFile);
    EXPECT_EQ(utils.Uncompress(dir, name), 0) << WToUtf8(servedFile);
    platform::RemoveFilePath(dir + u"/" + name);
    return dir;
  }
  VersionLineInfo ServerLine(const WString& rel) {
    for (const VersionLineInfo& line : ServerLines())
      if (line.leafRelPath == rel) return line;
    ADD_FAILURE() << "the server lists no leaf " << WToUtf8(rel);
    return VersionLineInfo();
  }
  // The first leaf of a type on the server, not one of `besides`.
  VersionLineInfo FirstLeaf(char16_t type, std::initializer_list<WString> besides = {}) {
    for (const VersionLineInfo& line : ServerLines()) {
      bool taken = false;
      for (const WString& b : besides) taken = taken || b == line.leafRelPath;
      if (line.leafType == type && line.leafVersion >= 0 && !taken) return line;
    }
    ADD_FAILURE() << "the server has no leaf of type " << static_cast<char>(type);
    return VersionLineInfo();
  }

  // A directory and the parents it lacks.
  static void MakeDirs(const WString& path) {
    for (size_t pos = path.find_first_of(u"/\\", 1); pos != WString::npos; pos = path.find_first_of(u"/\\", pos + 1))
      platform::CreateDirectoryPath(path.substr(0, pos));
    platform::CreateDirectoryPath(path);
  }

  WString Repo(const WString& rel) const {
    return repo + u"/" + rel;
  }
  std::string RepoFile(const WString& rel) const {
    return ReadBytes(Repo(rel));
  }
  void Put(const WString& path, const std::string& bytes) {
    ASSERT_TRUE(platform::WriteWholeFile(path, bytes.data(), bytes.size())) << WToUtf8(path);
  }

  // One run of the tree update, as the check runs it.
  int Update() {
    DLZTTree tree(&module, &params, &location);
    return tree.UpdateTree();
  }
  // A leaf of the repository brought to the complete state: its package fetched and unpacked
  // over its information files, and the marker 0 (information files alone) taken away here, so
  // that the cases built on it judge the tree update alone. Whether a download leaves a complete
  // leaf by itself is UmDownloadTest's question.
  void MakeComplete(const WString& rel) {
    DLZTTree tree(&module, &params, &location);
    WString exe;
    ASSERT_EQ(tree.DownloadUncompressLeaf(rel, -1, exe), 0) << WToUtf8(rel);
    platform::RemoveFilePath(Repo(rel) + u"/0");
    ASSERT_EQ(tree.LeafStatus(rel), DLZTTree::kComplete) << WToUtf8(rel);
  }
  int Status(const WString& rel) {
    DLZTTree tree(&module, &params, &location);
    return tree.LeafStatus(rel);
  }

  // Every file and directory below `dir`; `skip` leaves out a relative path and what is below it.
  static void Take(const WString& dir, Snapshot& out, const std::function<bool(const WString&)>& skip = nullptr,
                   const WString& rel = WString()) {
    std::vector<platform::DirEntry> entries;
    if (!platform::ListDirectory(rel.empty() ? dir : dir + u"/" + rel, entries)) return;
    for (const platform::DirEntry& e : entries) {
      WString path = rel.empty() ? e.name : rel + u"/" + e.name;
      if (skip && skip(path)) continue;
      if (e.isDirectory) {
        out[path] = "<dir>";
        Take(dir, out, skip, path);
      } else {
        out[path] = ReadBytes(dir + u"/" + path);
      }
    }
  }
  static Snapshot Take(const WString& dir, const std::function<bool(const WString&)>& skip = nullptr) {
    Snapshot out;
    Take(dir, out, skip);
    return out;
  }
  // The paths that differ between two snapshots, for a failure message.
  static std::string Differences(const Snapshot& before, const Snapshot& after) {
    std::string text;
    for (const auto& [path, bytes] : before) {
      auto it = after.find(path);
      if (it == after.end())
        text += " -" + WToUtf8(path);
      else if (it->second != bytes)
        text += " ~" + WToUtf8(path);
    }
    for (const auto& [path, bytes] : after)
      if (before.find(path) == before.end()) text += " +" + WToUtf8(path);
    return text;
  }

  // Everything below the test's root but the repository and what a run or the test itself
  // writes there on purpose (the temp area, the check log, the server's view, repotool's output):
  // the places a leaf path that leaves the repository would reach.
  Snapshot Outside() {
    return Take(root, [](const WString& p) {
      return p == u"tree" || p == u"work/temp" || p == u"EM_MENDER" || p == u"server_view" || p == u"repotool.txt";
    });
  }

  // nginx's access log: logs/ beside the document root in the servers' state directory.
  std::string AccessLog() {
    return ReadBytes(WFromUtf8(TestServers::NativePath(servers.www + "/../logs/nginx-access.log")));
  }
  // How often this test asked for the served file.
  int Requests(const std::string& file) {
    std::string log = AccessLog();
    const std::string needle = "\"GET /" + remote + "/" + file + " ";
    int count = 0;
    for (size_t pos = log.find(needle, m_logStart); pos != std::string::npos; pos = log.find(needle, pos + 1)) ++count;
    return count;
  }
  // nginx writes a request's line when it has answered it; a client may be done a moment before.
  int RequestsAtLeast(const std::string& file, int expected) {
    int count = Requests(file);
    for (int i = 0; i < 100 && count < expected; ++i) {
      platform::SleepRealMicros(20000);
      count = Requests(file);
    }
    return count;
  }

  static size_t Count(const WString& text, const WString& what) {
    size_t n = 0;
    for (size_t pos = text.find(what); pos != WString::npos; pos = text.find(what, pos + 1)) ++n;
    return n;
  }

  int m_views = 0;
  size_t m_logStart = 0;
  WString repotool, stub, served, leaves, repo;
  std::string remote;
  DownloadLocation location;
  platform::VirtualClock clock{1700000000u, 20};
  FakeUpdateModule module;
};
