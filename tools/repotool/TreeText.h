// The text files of a server tree, as repotool writes and reads them: 8-bit text, lines ending in
// CR LF.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "repotool/Leaf.h"

namespace treetext {

// The size Stop.txt has while an update of the server runs; the client learns it from
// UpdateIndicatorFile.txt.
constexpr int64_t kIndicatorSize = 4711;
// The placeholder package name of a link leaf.
constexpr const char* kLinkPlaceholder = "none.exe";

// `<leafRelPath> TAB <leafVersion> TAB <leafExeFile> TAB <size> TAB <type> TAB <commonLeaf> TAB
// <commonVersion> TAB <oldVersion> CR LF`
std::string FullLine(const Leaf& leaf);
// `<leafRelPath> TAB <leafVersion> CR LF`: the form a package brings along.
std::string ShortLine(const Leaf& leaf);

std::string VersionAllText(const std::vector<Leaf>& leaves);
// The leaves of versionAll.txt (fields only); throws std::runtime_error naming the bad line.
std::vector<Leaf> ParseVersionAll(const std::string& text);

// zt.par / ztlink.par: a comment line, then `key=value` lines.
std::string ComponentText(const Leaf& leaf);
std::vector<std::pair<std::string, std::string>> ParseComponent(const std::string& text);
// The component's keys in the order they are written.
const std::vector<std::string>& ComponentKeys();

struct VersionTreeNumbers {
  int64_t treeVersion = 0;
  int64_t versionAllSize = 0;
  int64_t ztParSize = 0;
  int64_t checkVersionAllSize = 0;  // the twins; equal to the above unless a tree is broken on purpose
  int64_t checkZtParSize = 0;
  int64_t checkVersion = 0;
};
std::string VersionTreeText(const VersionTreeNumbers& n);
// The tree version of versionTree.txt's title line; throws when there is none.
int64_t ParseTreeVersion(const std::string& text);

std::string StopText(bool updateRuns);
std::string IndicatorText();

// A leafRelPath of the tree: one or more elements of letters, digits and "._+-", separated by
// "/", no element starting with a dot. Throws std::runtime_error saying why not.
void CheckRelPath(const std::string& relPath);
// A package name: letters, digits and "._+-", ending in ".exe".
void CheckPackageName(const std::string& name);
// Text that goes into a field or value: no TAB, CR or LF.
void CheckFieldText(const std::string& what, const std::string& text, bool allowEmpty);

std::string Lower(std::string text);
std::vector<std::string> SplitLines(const std::string& text);

}  // namespace treetext
