#include "filedownload/RequestTarget.h"

#include <cctype>
#include <cstring>
#include <string>

namespace filedownload {

namespace {

// What a path segment may hold as it stands (RFC 3986 pchar without "%"): letters, digits,
// "-._~", the sub-delimiters and ":" "@".
bool KeptInPath(unsigned char c) {
  if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
  return c != '\0' && std::strchr("-._~!$&'()*+,;=:@/", c) != nullptr;
}

bool AllDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// A host name or address: nothing that would end the authority part of a URL or smuggle user
// information or a second host into it.
bool PlainHost(const std::string& host) {
  if (host.empty()) return false;
  for (unsigned char c : host) {
    if (c <= ' ' || c == 0x7F || std::strchr("/\\?#@%\"<>[]{}|^`", c) != nullptr) return false;
  }
  return true;
}

}  // namespace

std::string EncodeRemotePath(const std::string& remotePath) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string path;
  path.reserve(remotePath.size() + 8);
  if (remotePath.empty() || (remotePath[0] != '/' && remotePath[0] != '\\')) path += '/';
  for (unsigned char c : remotePath) {
    if (c == '\\') {
      path += '/';
    } else if (KeptInPath(c)) {
      path += static_cast<char>(c);
    } else {
      path += '%';
      path += kHex[c >> 4];
      path += kHex[c & 0x0F];
    }
  }
  return path;
}

bool MakeRequestTarget(const std::string& server, const std::string& remotePath, bool https, RequestTarget& target,
                       std::string& error) {
  std::string host = server;
  std::string port;
  if (!server.empty() && server[0] == '[') {
    // An IPv6 address: [addr] or [addr]:port.
    const size_t close = server.find(']');
    if (close == std::string::npos || close == 1) {
      error = "invalid server: " + server;
      return false;
    }
    host = server.substr(0, close + 1);
    const std::string rest = server.substr(close + 1);
    if (!rest.empty()) {
      if (rest[0] != ':') {
        error = "invalid server: " + server;
        return false;
      }
      port = rest.substr(1);
    }
    for (char c : host.substr(1, host.size() - 2)) {
      if (!std::isxdigit(static_cast<unsigned char>(c)) && c != ':' && c != '.') {
        error = "invalid server: " + server;
        return false;
      }
    }
  } else {
    const size_t colon = server.rfind(':');
    if (colon != std::string::npos) {
      host = server.substr(0, colon);
      port = server.substr(colon + 1);
    }
    if (!PlainHost(host) || host.find(':') != std::string::npos) {
      error = "invalid server: " + server;
      return false;
    }
  }
  unsigned portNumber = 0;
  if (!port.empty() || server.back() == ':') {
    if (!AllDigits(port) || port.size() > 5 || std::stoul(port) == 0 || std::stoul(port) > 65535) {
      error = "invalid port in server: " + server;
      return false;
    }
    portNumber = static_cast<unsigned>(std::stoul(port));
  }
  target.secure = https;
  target.host = host;
  target.port = portNumber;
  target.path = EncodeRemotePath(remotePath);
  target.url = (https ? "https://" : "http://") + host;
  if (portNumber != 0) target.url += ":" + std::to_string(portNumber);
  target.url += target.path;
  return true;
}

}  // namespace filedownload
