// Whole directory trees and the facts about a directory that the mirror needs: copy, removal,
// free space, open rights.
#pragma once

#include <cstdint>

#include "base/WString.h"

namespace platform {

// Copies the contents of `from` into `to` (created if missing, with every level above it), with
// subdirectories, empty ones included, hidden files included, existing files overwritten. Files
// already in `to` that `from` lacks stay. On failure `error` holds one readable line per problem
// and the copy goes on with the next entry.
// POSIX: symbolic links are copied as links (their target text unchanged), never followed; files
// keep their modification time; a target inside the source is refused. Windows: directory links
// (junctions) are reported and skipped; read-only, hidden or system targets are overwritten too.
bool CopyTree(const WString& from, const WString& to, WString& error);
// Removes a directory with everything below it. A symbolic link below it is removed as a link;
// what it points to is never touched. True when nothing stands at `path` afterwards.
bool RemoveTree(const WString& path, WString& error);
// Free bytes on the file system that holds `path` (its nearest existing ancestor on POSIX; on
// Windows the root given by the path's first element, e.g. "C:"), as available to the caller.
bool FreeBytesForCaller(const WString& path, uint64_t& bytes);
// Opens the directory's rights to everyone. Windows: adds an ACE with full control for the
// account `accountName` ("Everyone", or its localised name) to the existing ACL, inherited by
// files and subdirectories. POSIX: mode 0777; the account name plays no part.
bool GrantFullAccess(const WString& path, const WString& accountName);

}  // namespace platform
