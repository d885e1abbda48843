#include "filedownload/FileDownLoad.h"

#include <chrono>
#include <cstdio>

#include "filedownload/DownloadOptions.h"
#include "filedownload/ExitCode.h"
#include "filedownload/RequestTarget.h"
#include "filedownload/StagedFile.h"
#include "filedownload/Transfer.h"

namespace filedownload {

namespace {

void Out(const std::string& line) {
  std::fputs(("FileDownLoad: " + line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

// The one line on standard error that the module copies into its log.
void Fail(const std::string& subject, const std::string& what) {
  std::fputs(("FileDownLoad: " + subject + ": " + what + "\n").c_str(), stderr);
  std::fflush(stderr);
}

int Usage(const std::string& error) {
  std::fputs(("FileDownLoad: " + error + "\n").c_str(), stderr);
  std::fputs(UsageText(), stderr);
  return kExitUsage;
}

std::string ProxyDescription(const DownloadOptions& o) {
  std::string text;
  switch (o.proxyMode) {
    case ProxyMode::kNone:
      return "none";
    case ProxyMode::kPredefined:
      text = "the system's settings";
      break;
    case ProxyMode::kUserDefined:
      text = o.proxyServer;
      break;
  }
  // The user name is shown, the password never.
  if (!o.proxyUser.empty()) text += " (user " + o.proxyUser + ")";
  return text;
}

std::string Seconds(std::chrono::steady_clock::duration d) {
  const long long ms = std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
  char text[32];
  std::snprintf(text, sizeof text, "%lld.%03lld s", ms / 1000, ms % 1000);
  return text;
}

}  // namespace

int RunFileDownLoad(const std::vector<std::string>& args) {
  const ParsedCommandLine parsed = ParseCommandLine(args);
  if (parsed.action == ParsedCommandLine::Action::kHelp) {
    std::fputs(UsageText(), stdout);
    return kExitDone;
  }
  if (parsed.action == ParsedCommandLine::Action::kUsageError) return Usage(parsed.error);
  const DownloadOptions& o = parsed.options;

  TransferRequest request;
  std::string error;
  if (!MakeRequestTarget(o.server, o.remotePath, o.https, request.target, error)) return Usage(error);
  request.proxyMode = o.proxyMode;
  request.proxyServer = o.proxyServer;
  request.proxyUser = o.proxyUser;
  request.proxyPassword = o.proxyPassword;
  const std::string& url = request.target.url;

  const auto start = std::chrono::steady_clock::now();
  if (o.verbose) {
    Out("fetching " + url);
    Out("into " + o.localFile);
    Out("proxy: " + ProxyDescription(o));
  }

  StagedFile file(o.localFile);
  if (!file.Open()) {
    Fail(url, file.Error());
    return kExitLocalFile;
  }
  const TransferResult result = Transfer(request, file);
  if (o.verbose) {
    if (!result.caFile.empty()) Out("trusting the certificate authorities of " + result.caFile + " too");
    Out("HTTP status " + (result.httpStatus != 0 ? std::to_string(result.httpStatus) : std::string("none")) + ", " +
        std::to_string(result.bytes) + " bytes in " + Seconds(std::chrono::steady_clock::now() - start));
  }
  if (result.code != kExitDone) {
    file.Discard();
    Fail(url, result.error);
    return result.code;
  }
  if (!file.Commit()) {
    Fail(url, file.Error());
    return kExitLocalFile;
  }
  if (o.verbose) Out("saved " + o.localFile);
  return kExitDone;
}

}  // namespace filedownload
