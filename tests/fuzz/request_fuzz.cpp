// A request from a requester, routed through a started module object: fuzzed opcode, opcode
// extension, object id, cabinet, status and data of every kind the message carries. The module
// must answer every request with a status and never crash, whatever the request holds; the
// settings it writes go to a scratch configuration space.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/Opcodes.h"
#include "foundation/RequestMessage.h"
#include "module/CUpdateExtensionModule.h"
#include "module/IModuleHost.h"
#include "platform/Clock.h"
#include "platform/Environment.h"
#include "platform/FileIo.h"
#include "platform/Registry.h"

namespace {

class QuietHost : public IModuleHost {
 public:
  int SendRequest(IExtensionModule*, RequestMessage* message, uint32_t) override {
    SetCommandValue(*message, GetCurrentCommand(*message), kKeyST, ST_OK, false);
    return 1;
  }
  void PostEvent(IExtensionModule*, RequestMessage*) override {}
  void ModuleStarted(IExtensionModule*, uint32_t) override {}
  void ModuleStopping(IExtensionModule*) override {}
  uint32_t GetHostType() override { return 1; }
};

// Reads the input front to back; past its end every read gives 0.
struct Reader {
  const uint8_t* data;
  size_t size;
  size_t at = 0;
  uint32_t Byte() { return at < size ? data[at++] : 0; }
  uint32_t U16() { return Byte() | (Byte() << 8); }
  uint32_t U32() { return U16() | (U16() << 16); }
  size_t Left() const { return size - at; }
};

// The opcodes that have handlers, and their neighbours; a fuzzed one now and then.
constexpr uint32_t kOpcodes[] = {CM_ReadConfigurationSpace,
                                 CM_WriteConfigurationSpace,
                                 CM_UmSetRepositoryAccessqLTX,
                                 CM_UmServerStartCheck,
                                 CM_UmServerCheckConfig,
                                 CM_UmDataChanged,
                                 CM_UmJobFirst,
                                 CM_UmJobLast,
                                 CM_UmFamilyFirst,
                                 CM_UmFamilyLast,
                                 CM_VInfoScanState,
                                 CM_VInfoScanTime,
                                 0xE003};

CUpdateExtensionModule* StartedModule() {
  static CUpdateExtensionModule* module = [] {
    // A scratch installation: registry file, roots and configuration files below one folder.
    std::string dir = platform::TempDirectory().empty() ? "/tmp" : WToUtf8(platform::TempDirectory());
    dir += "/em_request_fuzz";
    const WString root = WFromUtf8(dir);
    platform::CreateDirectoryPath(root);
    platform::SetEnv(u"NODEWARDEN_REGISTRY", root + u"/registry.reg");
    // The module's waits (the volume search's rounds, the serializer's pauses) take no time.
    // Both live to the end of the process, as the module's worker thread does.
    platform::SetClock(new platform::VirtualClock(1700000000u, 0));
    platform::SetEnv(u"EM_MENDER_MOUNTINFO", root + u"/mountinfo");
    platform::SetEnv(u"EM_MENDER_DISK_BY_LABEL", root + u"/by-label");
    const WString base = u"SOFTWARE\\Hadley Brandt\\Management\\Node Warden";
    platform::RegistryWriteString(base + u"\\DATA", u"DataRoot", root, false);
    platform::RegistryWriteString(base + u"\\Setup", u"TempRoot", root, false);
    platform::RegistryWriteString(base + u"\\Setup", u"FileRoot", root, false);
    static QuietHost host;
    auto* m = new CUpdateExtensionModule;
    m->SetServerCabinetNumber(1);
    m->StartModule(&host, 0x00020001);
    m->OnSwitchStarted();
    return m;
  }();
  return module;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CUpdateExtensionModule* module = StartedModule();
  Reader in{data, size};
  const uint32_t shape = in.Byte();
  uint32_t oc = in.U16();
  if ((shape & 3) != 0) oc = kOpcodes[oc % (sizeof kOpcodes / sizeof kOpcodes[0])];
  const uint32_t oe = (shape & 4) ? 6720 + in.Byte() % 32 : in.U16();
  const uint32_t oi = in.U32();
  const uint32_t ca = in.Byte() % 4;

  RequestMessage m;
  ResetMessage(m);
  MessageValue& c = GetCurrentCommand(m);
  SetCommandValue(m, c, kKeyOC, oc, false);
  SetCommandValue(m, c, kKeyOE, oe, false);
  SetCommandValue(m, c, kKeyOI, oi, false);
  if (shape & 8) SetCommandValue(m, c, kKeyCA, ca, false);
  if (shape & 16) SetCommandValue(m, c, kKeyST, in.Byte(), false);
  switch ((shape >> 5) & 7) {
    case 1:
      SetDataNumber(m, c, in.U32(), 1 << (in.Byte() % 4));
      break;
    case 2:
    case 3: {  // a text: pairs of bytes as 16-bit units, lone surrogates and zeros included
      WString text;
      while (in.Left() >= 2) text.push_back(static_cast<char16_t>(in.U16()));
      SetDataString(m, c, text);
      break;
    }
    case 4:
    case 5:
      SetDataBytes(m, c, data + in.at, in.Left());
      break;
    default:
      break;  // no data
  }
  if (shape & 0x80 && (shape & 3) == 0)
    module->ApplicationReply(&m);
  else
    module->ApplicationRequest(&m);
  // Every request is answered: a status stands in the command afterwards.
  if (!(shape & 0x80) && !HasCommandKey(m, m.commandIndex, kKeyST)) std::abort();
  return 0;
}
