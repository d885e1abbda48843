// What the tests of the update engine share: a private engine folder, files written byte for
// byte, the elements of a comparison as plain rows, and environment variables put back afterwards.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "base/WString.h"
#include "engine/EngineFactory.h"
#include "engine/ORMUX.h"
#include "foundation/CFile.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "tests/unit/TestRegistry.h"

namespace enginetest {

inline WString Text(const char16_t* text) {
  return text ? WString(text) : WString(u"<null>");
}

// Writes `bytes` to `root/rel` ('/'-separated), creating the directories on the way.
inline void Put(const WString& root, const WString& rel, const std::string& bytes) {
  ASSERT_TRUE(platform::CreateDirectoryPath(root)) << WToUtf8(root);
  WString path = root;
  size_t start = 0;
  for (;;) {
    size_t slash = rel.find(u'/', start);
    if (slash == WString::npos) break;
    path += platform::kPathSeparator + rel.substr(start, slash - start);
    platform::CreateDirectoryPath(path);
    start = slash + 1;
  }
  path += platform::kPathSeparator + rel.substr(start);
  ASSERT_TRUE(platform::WriteWholeFile(path, bytes.data(), bytes.size())) << WToUtf8(path);
}

inline std::string Read(const WString& path) {
  std::string bytes;
  platform::ReadWholeFile(path, bytes);
  return bytes;
}

// A path from the environment; under Wine a POSIX path is reached through the drive Z:.
inline WString PathFromEnv(const char* name) {
  const char* v = std::getenv(name);
  if (!v || !*v) return WString();
  WString path = WFromUtf8(v);
#ifdef _WIN32
  if (path[0] == u'/') path = u"Z:" + path;
#endif
  return path;
}

// Sets or removes an environment variable for one test and puts the old state back.
class EnvGuard {
 public:
  explicit EnvGuard(const char16_t* name) : m_name(name) { m_had = platform::GetEnv(m_name, m_saved); }
  ~EnvGuard() {
    if (m_had)
      platform::SetEnv(m_name, m_saved);
    else
      platform::UnsetEnv(m_name);
  }
  void Set(const WString& value) { platform::SetEnv(m_name, value); }
  void Unset() { platform::UnsetEnv(m_name); }

 private:
  WString m_name, m_saved;
  bool m_had = false;
};

// One update element in the fields a comparison decides.
struct Row {
  std::string fwPath, objectName, newVersion, instVersion;
  int32_t compId;
  uint32_t ranking;
  int upgrade, downgrade;
  int32_t valid;
  bool operator==(const Row&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const Row& r) {
  return os << "{" << r.fwPath << " " << r.objectName << " " << r.newVersion << " over '" << r.instVersion << "' comp "
            << r.compId << " rank " << r.ranking << " up " << r.upgrade << " down " << r.downgrade << " valid "
            << r.valid << "}";
}

inline Row ToRow(const UpdateElement& e) {
  return Row{WToUtf8(Text(e.FwPath)),
             WToUtf8(Text(e.ObjectName)),
             WToUtf8(Text(e.NewVersion)),
             WToUtf8(Text(e.InstVersion)),
             e.CompId,
             e.VersionRanking,
             e.Upgrade,
             e.Downgrade,
             e.Valid};
}

inline std::vector<Row> Rows(UpdateInventoryIterator* it) {
  std::vector<Row> rows;
  if (!it) return rows;
  for (const UpdateElement* e = it->GetFirst(); e; e = it->GetNext()) rows.push_back(ToRow(*e));
  return rows;
}

// A fresh folder for one test below the temporary directory, removed afterwards.
class EngineFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    root = platform::TempDirectory() + platform::kPathSeparator + u"em_engine_" + WFromUtf8(info->name());
    CFile::RemoveDirectoryTree(root, true);
    ASSERT_TRUE(platform::CreateDirectoryPath(root));
    dataDir = root + platform::kPathSeparator + u"UpdateJob";
    engineDir = dataDir + platform::kPathSeparator + u"SimulatedEngine";
    repo = root + platform::kPathSeparator + u"repo";
    platform::CreateDirectoryPath(repo);
    args.dataDir = dataDir;
  }
  void TearDown() override { CFile::RemoveDirectoryTree(root, true); }

  void Inventory(const std::string& bytes) {
    platform::CreateDirectoryPath(dataDir);
    Put(engineDir, u"inventory.txt", bytes);
  }
  void Faults(const std::string& bytes) {
    platform::CreateDirectoryPath(dataDir);
    Put(engineDir, u"faults.txt", bytes);
  }
  void Leaf(const WString& rel, const std::string& description, const char16_t* file = u"zt.par") {
    Put(repo, rel + u"/" + file, description);
  }

  WString root, dataDir, engineDir, repo;
  EngineArgs args;
};

}  // namespace enginetest
