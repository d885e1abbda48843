// The engine factory: the simulated engine when nothing is configured, an engine library named by
// the environment variable or the registry, and an engine that fails every call when the
// configured library cannot be used (never the simulation in its place).
#include <gtest/gtest.h>

#include <string>

#include "engine/EngineFactory.h"
#include "engine/SimulatedEngine.h"
#include "foundation/RootPaths.h"
#include "foundation/UM_Util.h"
#include "platform/DynamicLibrary.h"
#include "tests/unit/EngineTestSupport.h"

using namespace enginetest;

namespace {

class EngineFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    library = PathFromEnv("EM_TEST_ENGINE");
    args.dataDir = u"factory-data";
  }
  // Every call of an engine that could not be made fails, and its text names the library.
  static void ExpectUnavailable(ORMUX& e, const WString& path, const char* reason) {
    EXPECT_EQ(dynamic_cast<SimulatedEngine*>(&e), nullptr);
    EXPECT_EQ(e.UseLocalInventory(), kEngineUnavailable);
    UpdateInventoryIterator* it = nullptr;
    EXPECT_EQ(e.GetUpdateInventoryIterator(u"/repo", it), kEngineUnavailable);
    EXPECT_EQ(it, nullptr);
    EXPECT_EQ(e.GetInventoryIterator(), nullptr);
    uint32_t count = 0;
    EXPECT_EQ(e.AddNewJob(u"t", u"n", u"d", count, ZTI_CHECK_Normal), kEngineUnavailable);
    EXPECT_EQ(e.StartUpdate(), kEngineUnavailable);
    EXPECT_EQ(e.DoFlashBoot(BOOTTYPE_Flash, 0), kEngineUnavailable);
    B_TYPE boot = BOOTTYPE_Flash;
    uint32_t detail = 0;
    EXPECT_EQ(e.GetFlashBootStatus(boot, detail), kEngineUnavailable);
    EXPECT_EQ(e.ResumeJob(), kEngineUnavailable);
    EXPECT_EQ(e.CleanupUpdate(), kEngineUnavailable);
    EXPECT_EQ(e.GetFirstJobStatus(nullptr, nullptr), nullptr);
    const std::string text = WToUtf8(Text(e.GetErrorString(static_cast<int32_t>(kEngineUnavailable))));
    EXPECT_NE(text.find(WToUtf8(path)), std::string::npos) << text;
    EXPECT_NE(text.find(reason), std::string::npos) << text;
  }

  EnvGuard env{kEngineLibraryEnvName};
  WString library;
  EngineArgs args;
};

}  // namespace

TEST_F(EngineFactoryTest, LibraryNamedByTheEnvironment) {
  ASSERT_FALSE(library.empty()) << "EM_TEST_ENGINE is not set";
  env.Set(library);
  EXPECT_EQ(ConfiguredEngineLibrary(), library);
  EnginePtr e = MakeEngine(args, nullptr);
  ASSERT_TRUE(e);
  EXPECT_EQ(dynamic_cast<SimulatedEngine*>(e.get()), nullptr);
  EXPECT_NE(e.get_deleter().library, nullptr);
  UpdateInventoryIterator* it = nullptr;
  ASSERT_EQ(e->GetUpdateInventoryIterator(u"any", it), 0u);
  ASSERT_NE(it, nullptr);
  const UpdateElement* u = it->GetFirst();
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(Text(u->FwPath), u"TESTLIB/Only");
  EXPECT_EQ(it->GetNext(), nullptr);
  InventoryIterator* inv = e->GetInventoryIterator();
  ASSERT_NE(inv, nullptr);
  ASSERT_NE(inv->GetFirst(), nullptr);
  EXPECT_EQ(Text(inv->GetFirst()->CompId), u"TESTLIB");
  // The arguments arrive: the test library answers its data directory as exec path.
  WString exec;
  e->GetExecPath(exec);
  EXPECT_EQ(exec, u"factory-data");
  e.reset();  // the engine goes, then the library

  // Two engines from the same library live side by side (the check and the jobs).
  EnginePtr a = MakeEngine(args, nullptr), b = MakeEngine(args, nullptr);
  ASSERT_NE(a->GetInventoryIterator(), nullptr);
  a.reset();
  ASSERT_NE(b->GetInventoryIterator(), nullptr);
  EXPECT_EQ(Text(b->GetInventoryIterator()->GetFirst()->CompType), u"BIOS");
}

TEST_F(EngineFactoryTest, TheEntryRefusesAnotherInterfaceVersion) {
  ASSERT_FALSE(library.empty()) << "EM_TEST_ENGINE is not set";
  WString error;
  void* handle = platform::LoadModuleFile(library, error);
  ASSERT_NE(handle, nullptr) << WToUtf8(error);
  auto entry = reinterpret_cast<EngineLibraryEntry>(platform::FindModuleSymbol(handle, kEngineLibraryEntryName));
  ASSERT_NE(entry, nullptr);
  EngineLibraryArgs plain{kEngineInterfaceVersion + 1, u"localhost", 3171, 0, u"", u"", u"data", nullptr};
  EXPECT_EQ(entry(&plain), nullptr);
  plain.interfaceVersion = kEngineInterfaceVersion;
  ORMUX* made = entry(&plain);
  ASSERT_NE(made, nullptr);
  delete made;
  platform::UnloadModuleFile(handle);
}

TEST_F(EngineFactoryTest, LibraryThatCannotBeUsed) {
  UM_Util util(nullptr);
  // A missing file.
  const WString missing = platform::TempDirectory() + platform::kPathSeparator + u"em_no_such_engine.library";
  env.Set(missing);
  EnginePtr e = MakeEngine(args, &util);
  ASSERT_TRUE(e);
  EXPECT_EQ(e.get_deleter().library, nullptr);
  ExpectUnavailable(*e, missing, "cannot be loaded");

  // A library without the entry point.
#ifdef _WIN32
  const WString other = u"kernel32.dll";
#else
  const WString other = u"libm.so.6";
#endif
  env.Set(other);
  e = MakeEngine(args, nullptr);
  ExpectUnavailable(*e, other, "EM_CreateUpdateEngine");

  // A library that makes no engine.
  ASSERT_FALSE(library.empty()) << "EM_TEST_ENGINE is not set";
  env.Set(library);
  args.dataDir = u"refuse";
  e = MakeEngine(args, nullptr);
  EXPECT_EQ(e.get_deleter().library, nullptr);
  ExpectUnavailable(*e, library, "no engine");
}

TEST_F(EngineFactoryTest, EnvironmentOverRegistryOverNothing) {
  TestRegistry registry(u"engine_factory");
  const WString key = ReadHostBaseKeyPath() + u"\\EM_MENDER";

  env.Unset();
  EXPECT_EQ(ConfiguredEngineLibrary(), u"");
  EnginePtr e = MakeEngine(args, nullptr);
  EXPECT_NE(dynamic_cast<SimulatedEngine*>(e.get()), nullptr);

  registry.String(key, kEngineLibraryValueName, u"C:\\Engines\\from-registry.dll");
  EXPECT_EQ(ConfiguredEngineLibrary(), u"C:\\Engines\\from-registry.dll");

  // Set, even empty, the variable wins: the simulated engine.
  env.Set(u"");
  EXPECT_EQ(ConfiguredEngineLibrary(), u"");
  e = MakeEngine(args, nullptr);
  EXPECT_NE(dynamic_cast<SimulatedEngine*>(e.get()), nullptr);
  env.Set(u"/elsewhere/engine.so");
  EXPECT_EQ(ConfiguredEngineLibrary(), u"/elsewhere/engine.so");
}
