// Where a transfer goes: the URL built from -s, -r and -e, and its parts as a transport that
// connects by host and port (WinHTTP) needs them.
#pragma once

#include <string>

namespace filedownload {

struct RequestTarget {
  bool secure = false;
  std::string host;   // as in the URL: a name, an IPv4 address, or an IPv6 address in brackets
  unsigned port = 0;  // 0: the scheme's own (80, 443)
  std::string path;   // percent-encoded, beginning with "/"
  std::string url;    // http(s)://<host>[:port]<path>
};

// False, with `error` set, when the server is not a host[:port]. The remote path is taken as
// plain text: "\" becomes "/", and every byte that a URL path cannot carry as it stands (blanks,
// "%", "?", "#", control bytes, UTF-8 sequences...) is percent-encoded.
bool MakeRequestTarget(const std::string& server, const std::string& remotePath, bool https, RequestTarget& target,
                       std::string& error);

// The remote path as a URL path: "/" kept, "\" turned into "/", the rest encoded as needed.
std::string EncodeRemotePath(const std::string& remotePath);

}  // namespace filedownload
