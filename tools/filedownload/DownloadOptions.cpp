#include "filedownload/DownloadOptions.h"

#include <cctype>

namespace filedownload {

namespace {

bool IsHelp(const std::string& arg) {
  return arg == "--help" || arg == "-h" || arg == "/?" || arg == "-?";
}

bool SameIgnoringCase(const std::string& a, const char* b) {
  size_t i = 0;
  for (; i < a.size() && b[i] != '\0'; ++i) {
    if (std::toupper(static_cast<unsigned char>(a[i])) != std::toupper(static_cast<unsigned char>(b[i]))) return false;
  }
  return i == a.size() && b[i] == '\0';
}

bool ReadProxyMode(const std::string& text, ProxyMode& mode) {
  if (text.empty() || SameIgnoringCase(text, "NO_PROXY")) {
    mode = ProxyMode::kNone;
  } else if (SameIgnoringCase(text, "PREDEFINED")) {
    mode = ProxyMode::kPredefined;
  } else if (SameIgnoringCase(text, "USER_DEFINED_PROXY")) {
    mode = ProxyMode::kUserDefined;
  } else {
    return false;
  }
  return true;
}

ParsedCommandLine UsageError(std::string error) {
  ParsedCommandLine parsed;
  parsed.action = ParsedCommandLine::Action::kUsageError;
  parsed.error = std::move(error);
  return parsed;
}

}  // namespace

ParsedCommandLine ParseCommandLine(const std::vector<std::string>& args) {
  ParsedCommandLine parsed;
  DownloadOptions& o = parsed.options;
  std::string mode;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (IsHelp(arg)) {
      parsed.action = ParsedCommandLine::Action::kHelp;
      return parsed;
    }
    if (arg == "-v" || arg == "-d") {
      o.verbose = true;
      continue;
    }
    if (arg == "-e") {
      o.https = true;
      continue;
    }
    std::string* value = nullptr;
    if (arg == "-m") value = &o.proxyUser;
    if (arg == "-i") value = &o.proxyPassword;
    if (arg == "-x") value = &o.proxyServer;
    if (arg == "-c") value = &mode;
    if (arg == "-s") value = &o.server;
    if (arg == "-r") value = &o.remotePath;
    if (arg == "-l") value = &o.localFile;
    if (value == nullptr) return UsageError("unknown option: " + arg);
    // A value is taken as it stands, even when it begins with "-": the module quotes every value,
    // and an empty one ("") is a value too.
    if (i + 1 >= args.size()) return UsageError("option " + arg + " needs a value");
    *value = args[++i];
  }
  if (!ReadProxyMode(mode, o.proxyMode)) {
    return UsageError("unknown proxy mode -c \"" + mode + "\" (NO_PROXY, PREDEFINED or USER_DEFINED_PROXY)");
  }
  if (o.server.empty()) return UsageError("missing -s <server>");
  if (o.remotePath.empty()) return UsageError("missing -r <remotePath>");
  if (o.localFile.empty()) return UsageError("missing -l <localFile>");
  if (o.proxyMode == ProxyMode::kUserDefined && o.proxyServer.empty()) {
    return UsageError("-c USER_DEFINED_PROXY needs -x <proxyServer>[:port]");
  }
  parsed.action = ParsedCommandLine::Action::kDownload;
  return parsed;
}

const char* UsageText() {
  return "Usage: FileDownLoad -s <server>[:port] -r <remotePath> -l <localFile> [-e]\n"
         "                    [-c NO_PROXY|PREDEFINED|USER_DEFINED_PROXY] [-x <proxy>[:port]]\n"
         "                    [-m <proxyUser>] [-i <proxyPassword>] [-v -d]\n"
         "Fetches http://<server>/<remotePath> (https with -e) into <localFile>. The file is written\n"
         "under a temporary name beside <localFile> and takes its name only when complete.\n"
         "  -s  the server, a host name or address, optionally with :port\n"
         "  -r  the remote path; \"\\\" is read as \"/\"\n"
         "  -l  the local file; an existing one is replaced only by a complete transfer\n"
         "  -e  https instead of http\n"
         "  -c  NO_PROXY (default): direct; PREDEFINED: the system's proxy settings;\n"
         "      USER_DEFINED_PROXY: the proxy given by -x\n"
         "  -x  the proxy, host:port\n"
         "  -m  proxy user, -i proxy password (basic authentication, sent when -m is not empty)\n"
         "  -v, -d  report what is fetched, the status, the size and the time on standard output\n"
         "  --help, -h, /?  this text\n"
         "Environment: EM_MENDER_CA_FILE names a PEM file of certificate authorities trusted in\n"
         "addition to the system's store.\n"
         "Exit codes: 0 done; 1 network or transfer failure; 2 usage; 3 the server answered with a\n"
         "status of failure (400 and above, or a redirect, which is not followed); 4 the local file\n"
         "cannot be written.\n";
}

}  // namespace filedownload
