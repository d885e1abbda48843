// Readers of versionTree.txt, the file that says which version the tree stands at and how big its
// two archives are. Each number has a "Check_" twin; a file whose twins differ is unreadable.
#pragma once

#include <cstdint>

#include "base/WString.h"

namespace treefiles {

constexpr char16_t kTreeTitle[] = u"# Version of ZT-Zip-Tree";
constexpr size_t kTitleLineChars = 299;

struct SpecialFileSizes {
  int32_t versionAllExe = -1;
  int32_t ztParTree = -1;
};

// The version behind the title line's ":", or -1 when the file, the title or the colon is missing.
int32_t GetTreeVersion(const WString& file);
// The sizes of versionAll.exe and ZT_par_tree.exe. -1 when a key is missing or reads -1, a size
// differs from its twin, or "# Check_Version" is not `treeVersion`.
int GetSpecialFileSizes(const WString& file, int32_t treeVersion, SpecialFileSizes& sizes);

// A line of backtrack.txt: the leaf's path and the operating system it applies to, separated by
// TABs, CRs or LFs. False for a comment line or a line with fewer than two tokens.
bool ParseBacktrackLine(const WString& line, WString& leafRelPath, WString& osString);

}  // namespace treefiles
