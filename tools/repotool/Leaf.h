// One leaf of a server tree: its line in versionAll.txt, its component description and release
// note, and where its payload comes from.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

struct Leaf {
  std::string relPath;     // "/"-separated elements, e.g. BIOS/D3348/A1
  int32_t version = 0;     // -1: withdrawn by the server
  std::string exeFile;     // the package's file name; a placeholder for a link leaf
  int64_t exeSize = 0;     // the package's byte size; 0 for a link leaf
  char type = 'F';         // F full, C common, L link
  std::string commonLeaf;  // empty when none ("-" in the files)
  int32_t commonVersion = 0;
  int32_t oldVersion = 0;
  // The component description (zt.par / ztlink.par), key and value, in the order written.
  std::vector<std::pair<std::string, std::string>> component;
  bool hasRelNote = false;
  std::string relNote;
  std::filesystem::path payloadDir;  // the leaves folder's files/ of the leaf; empty when none

  bool HasPackage() const { return type != 'L'; }
};
