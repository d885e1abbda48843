// The command line of one transfer, as the module writes it:
//   FileDownLoad -m "<proxyUser>" -i "<proxyPassword>" -x "<proxyServer>[:port]" -c "<mode>"
//                -s "<server>" -r "<remotePath>" -l "<localFile>" [-v -d] [-e]
#pragma once

#include <string>
#include <vector>

namespace filedownload {

enum class ProxyMode {
  kNone,         // NO_PROXY (also an empty or missing -c): straight to the server
  kPredefined,   // PREDEFINED: the system's proxy settings
  kUserDefined,  // USER_DEFINED_PROXY: the proxy named by -x
};

struct DownloadOptions {
  std::string proxyUser;  // empty: no proxy authentication is sent
  std::string proxyPassword;
  std::string proxyServer;  // host[:port], or a proxy URL
  ProxyMode proxyMode = ProxyMode::kNone;
  std::string server;      // host[:port]
  std::string remotePath;  // as given: "\" or "/" separated, with or without a leading "/"
  std::string localFile;
  bool https = false;
  bool verbose = false;
};

struct ParsedCommandLine {
  enum class Action { kDownload, kHelp, kUsageError };
  Action action = Action::kUsageError;
  DownloadOptions options;
  std::string error;  // for kUsageError: what is wrong, in one line
};

// Reads the arguments that follow the program name (UTF-8 on every platform).
ParsedCommandLine ParseCommandLine(const std::vector<std::string>& args);

// The usage text, several lines, each ending in a line feed.
const char* UsageText();

}  // namespace filedownload
