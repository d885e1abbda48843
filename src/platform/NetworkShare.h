// Connecting the share that holds a remote repository, and the system's text for an error.
//
// POSIX has no connection of its own: a share is the local path where the share is already
// mounted (the administrator mounts it, with its credentials, outside this system). "Connecting"
// checks that the path exists, is a directory, lies on a mounted file system other than the root
// one, is mounted for the given user when the mount names one (cifs "username="), and can be
// read. Each failure has an error number in Windows terms and a text that says which check failed.
#pragma once

#include <cstdint>

#include "base/WString.h"

namespace platform {

constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorBadNetPath = 53;
constexpr uint32_t kErrorAlreadyAssigned = 85;
constexpr uint32_t kErrorInvalidName = 123;
constexpr uint32_t kErrorDirectory = 267;
constexpr uint32_t kErrorSessionCredentialConflict = 1219;
constexpr uint32_t kErrorNotConnected = 2250;

// 0 when the share is connected (or, on POSIX, usable as it is), else the system's error.
uint32_t ConnectShare(const WString& share, const WString& user, const WString& password);

// The system's message text for an error number, without its final line end.
WString SystemErrorText(uint32_t error);

}  // namespace platform
