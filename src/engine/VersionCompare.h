// The dotted version comparison of the update engine: how a repository's package version is
// ranked against the installed one, and how a prerequisite's or a step version's minimum is met.
#pragma once

#include "base/WString.h"

namespace engine {

// Compares two dotted versions: negative when a is older than b, 0 when they are the same
// version, positive when a is newer. The texts are split at '.'; an element compares by its
// leading run of digits as a number (any length, leading zeros ignored), then by the rest as text
// (code unit by code unit). A missing element counts as "0", so "1.2" and "1.2.0" are the same
// version; an element without digits has the number 0. Every text is a version: it never fails.
int CompareVersions(WStringView a, WStringView b);

}  // namespace engine
