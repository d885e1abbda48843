// The exit codes of the transfer tool, which the mirror reads to tell a missing file from a broken
// connection or a full disk.
#pragma once

namespace filedownload {

enum ExitCode : int {
  kExitDone = 0,
  kExitTransferFailed = 1,  // no connection, reset, time-out, short body, TLS or proxy failure
  kExitUsage = 2,           // unknown option, missing -s/-r/-l, malformed value
  kExitHttpStatus = 3,      // the server (or the proxy) answered with a status of failure
  kExitLocalFile = 4,       // the local file cannot be created, written or put in place
};

}  // namespace filedownload
