#include "mirror/DLParameters.h"

#include "base/WFormat.h"
#include "foundation/CDebug.h"
#include "platform/FileIo.h"
#include "platform/SystemInfo.h"

namespace {

WString FallbackLocation() {
#ifdef _WIN32
  return u"C:\\tmp";
#else
  return u"/tmp";
#endif
}

const char16_t* OrNull(const WString& s) {
  return s.empty() ? u"NULL" : s.c_str();
}

}  // namespace

DLParameters::DLParameters() {
  WString current = platform::CurrentDirectory();
  if (current.empty()) {
    current = FallbackLocation();
    TRACE(1, u"DLParameters::DLParameters()\t: current directory unknown, using %s\n", current.c_str());
  }
  DownloadLocation = ScriptLocation = WorkingLocation = current;
  Server = platform::ComputerName();
  if (Server.size() > 260) Server.resize(260);
}

DLParameters::~DLParameters() = default;

void DLParameters::SetProxyMode(uint8_t mode) {
  switch (mode) {
    case 0:
      ProxyMode.clear();
      break;
    case 1:
      ProxyMode = u"PREDEFINED";
      break;
    case 2:
      ProxyMode = u"USER_DEFINED_PROXY";
      break;
    default:
      TRACE(1, u"DLParameters::SetProxyMode()\t: Undefined Proxy Mode %d\n", static_cast<int>(mode));
      break;
  }
}

void DLParameters::SetProtocol(int flag) {
  webProtocol = flag == 0 ? u"http" : u"https";
}

int DLParameters::CheckRemoteParameters() const {
  if (RemoteServer.empty() || RemoteLocation.empty() || webProtocol.empty() || Community.empty()) {
    TRACE(1, u"DLParameters::CheckRemoteParameters()\t: ERROR! Some Download parameters are empty!\n");
    return -1;
  }
  return 0;
}

void DLParameters::GetParameterText(WString& out) const {
  // The password never reaches the trace in clear: a set one shows as "****".
  WString password = ProxyPassword.empty() ? WString() : WString(u"****");
  out = WFormat(
      u"Server: %s, Remote server: %s, Remote location: %s, Download location: %s, Working location: %s, "
      u"Community: %s, IpAddress: %s, ProxyServer: %s, ProxyUser: %s, ProxyPassword : %s, webProtocol : %s, "
      u"Timeout: %d\n",
      OrNull(Server), OrNull(RemoteServer), OrNull(RemoteLocation), OrNull(DownloadLocation), OrNull(ScriptLocation),
      OrNull(Community), OrNull(IpAddress), OrNull(ProxyServer), OrNull(ProxyUser), OrNull(password),
      OrNull(webProtocol), Timeout);
}
