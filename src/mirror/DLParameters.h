// What a transfer needs to know: the download server and the tree's place on it, the three local
// directories, the proxy, the protocol and the mode of the tree update.
#pragma once

#include <cstdint>

#include "base/WString.h"

class DLParameters {
 public:
  DLParameters();
  virtual ~DLParameters();

  const WString& GetRemoteServer() const { return RemoteServer; }
  void SetRemoteServer(const WString& v) { RemoteServer = v; }
  const WString& GetRemoteLocation() const { return RemoteLocation; }
  void SetRemoteLocation(const WString& v) { RemoteLocation = v; }
  const WString& GetDownloadLocation() const { return DownloadLocation; }
  void SetDownloadLocation(const WString& v) { DownloadLocation = v; }
  const WString& GetScriptLocation() const { return ScriptLocation; }
  void SetScriptLocation(const WString& v) { ScriptLocation = v; }
  const WString& GetWorkingLocation() const { return WorkingLocation; }
  // The module never changes it after construction; hosts and tests that keep the transfer tool
  // elsewhere than in their current directory set it once, before the first transfer.
  void SetWorkingLocation(const WString& v) { WorkingLocation = v; }
  const WString& GetServer() const { return Server; }
  const WString& GetServerTag() const { return ServerTag; }
  const WString& GetIpAddress() const { return IpAddress; }
  const WString& GetCommunity() const { return Community; }
  void SetCommunity(const WString& v) { Community = v; }
  const WString& GetProxyMode() const { return ProxyMode; }
  const WString& GetProxyServer() const { return ProxyServer; }
  void SetProxyServer(const WString& v) { ProxyServer = v; }
  int32_t GetProxyPort() const { return ProxyPort; }
  void SetProxyPort(int32_t v) { ProxyPort = v; }
  const WString& GetProxyUser() const { return ProxyUser; }
  void SetProxyUser(const WString& v) { ProxyUser = v; }
  const WString& GetProxyPassword() const { return ProxyPassword; }
  void SetProxyPassword(const WString& v) { ProxyPassword = v; }
  const WString& GetWebProtocol() const { return webProtocol; }
  bool GetKeepFailedDownload() const { return keepFailedDownload != 0; }
  const WString& GetLogFile() const { return LogFile; }
  void SetLogFile(const WString& v) { LogFile = v; }
  int32_t GetTimeout() const { return Timeout; }
  int32_t GetDnlFlags() const { return m_dnlFlags; }
  void SetDnlFlags(int32_t v) { m_dnlFlags = v; }

  // 0 none, 1 the system's proxy, 2 the proxy given here; any other value changes nothing.
  void SetProxyMode(uint8_t mode);
  // 0 http, anything else https.
  void SetProtocol(int flag);
  // 0 when server, location, protocol and community are all given, else -1.
  int CheckRemoteParameters() const;
  // One line for the trace; a proxy password that is set shows as "****".
  void GetParameterText(WString& out) const;

 private:
  WString RemoteServer;
  WString RemoteLocation;
  WString DownloadLocation;
  WString ScriptLocation;
  WString WorkingLocation;
  WString Server;
  WString ServerTag;
  WString IpAddress;
  WString Community = u"public";
  WString ProxyMode;
  WString ProxyServer;
  int32_t ProxyPort = 0;
  WString ProxyUser;
  WString ProxyPassword;
  WString webProtocol = u"https";
  uint8_t keepFailedDownload = 0;
  WString LogFile;
  int32_t Timeout = 5000;
  int32_t m_dnlFlags = 0;
};
