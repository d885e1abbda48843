// One GET of one file, by the system's HTTP stack: libcurl on Linux (CurlTransfer.cpp), WinHTTP on
// Windows (WinHttpTransfer.cpp). One connection, no redirects followed, a connect time-out of
// 30 s and no time-out after that (the module ends a tool that runs too long).
#pragma once

#include <cstdint>
#include <string>

#include "filedownload/DownloadOptions.h"
#include "filedownload/ExitCode.h"
#include "filedownload/RequestTarget.h"
#include "filedownload/StagedFile.h"

namespace filedownload {

// The environment variable that names a PEM file of certificate authorities trusted in addition
// to the system's store (the test servers' CA, a company's own CA).
constexpr const char* kCaFileVariable = "EM_MENDER_CA_FILE";

constexpr long kConnectTimeoutSeconds = 30;

struct TransferRequest {
  RequestTarget target;
  ProxyMode proxyMode = ProxyMode::kNone;
  std::string proxyServer;
  std::string proxyUser;
  std::string proxyPassword;
};

struct TransferResult {
  ExitCode code = kExitTransferFailed;
  long httpStatus = 0;  // the server's status, 0 when none came
  uint64_t bytes = 0;   // body bytes written
  std::string caFile;   // the extra CA file in use, empty when none (for the verbose report)
  std::string error;    // what went wrong, in one line without the URL
};

// Fetches the target into `file`, which is open. Writes nothing but the body into it; the
// caller commits or discards it.
TransferResult Transfer(const TransferRequest& request, StagedFile& file);

}  // namespace filedownload
