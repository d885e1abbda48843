// Where engine objects come from. The check and the jobs each make their own object through
// MakeEngine: from an engine library when one is configured, else the simulated engine. A
// configured library that cannot be loaded is reported in the event log once per attempt and
// gives an engine whose every call fails with kEngineUnavailable: the module never quietly
// compares against the simulation in place of the configured engine.
//
// An engine library exports one C function, EM_CreateUpdateEngine (EngineLibraryEntry), that
// returns a new engine for the arguments, or null. The object is deleted through its virtual
// destructor before the library is unloaded.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "base/WString.h"
#include "engine/ORMUX.h"

class IUpdateModule;
class UM_Util;

// The constructor's arguments of an engine object.
struct EngineArgs {
  WString hostName = u"localhost";
  uint32_t port = 3171;
  ZTI_SERVICETYPE serviceType = ZTI_SERV_Normal;
  WString installDir;
  WString tempDir;
  WString dataDir;
  IUpdateModule* module = nullptr;
};

// The same arguments as plain data for the C entry point of an engine library.
struct EngineLibraryArgs {
  uint32_t interfaceVersion;  // kEngineInterfaceVersion of the module that calls
  const char16_t* hostName;
  uint32_t port;
  uint32_t serviceType;
  const char16_t* installDir;
  const char16_t* tempDir;
  const char16_t* dataDir;
  IUpdateModule* module;
};

// Raised whenever ORMUX or the records above change in a way that a built library would not follow.
constexpr uint32_t kEngineInterfaceVersion = 1;
constexpr const char* kEngineLibraryEntryName = "EM_CreateUpdateEngine";
using EngineLibraryEntry = ORMUX* (*)(const EngineLibraryArgs* args);

// The error number of every call of an engine that could not be made.
constexpr uint32_t kEngineUnavailable = 1001;

// Deletes the engine, then unloads the library it came from (if any).
struct EngineDeleter {
  void* library = nullptr;
  void operator()(ORMUX* engine) const;
};
using EnginePtr = std::unique_ptr<ORMUX, EngineDeleter>;

// The registry value of the module's key (<host base key>\EM_MENDER) and the environment variable
// that overrides it; an empty value means the simulated engine.
constexpr const char16_t* kEngineLibraryValueName = u"EngineLibrary";
constexpr const char16_t* kEngineLibraryEnvName = u"EM_MENDER_ENGINE";

// The library path in force: the environment variable when it is set (even empty), else the
// registry value, else empty.
WString ConfiguredEngineLibrary();

// Makes an engine for the arguments. `util` (may be null) takes the event-log entry of a library
// that cannot be loaded.
EnginePtr MakeEngine(const EngineArgs& args, UM_Util* util);

// The factory a component holds; MakeEngine unless a test hands in its own.
using EngineFactory = std::function<EnginePtr(const EngineArgs& args, UM_Util* util)>;
