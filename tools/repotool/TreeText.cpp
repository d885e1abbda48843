#include "repotool/TreeText.h"

#include <algorithm>
#include <stdexcept>

namespace treetext {

namespace {

const char kTitle[] = "# Version of ZT-Zip-Tree";

std::string Field(const std::string& text) {
  return text.empty() ? "-" : text;
}

// Strict decimal: an optional "-" and digits only, within 64 bits.
bool ParseNumber(const std::string& text, int64_t& value) {
  size_t i = text.size() > 1 && text[0] == '-' ? 1 : 0;
  if (i == text.size()) return false;
  int64_t v = 0;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9' || v > (INT64_MAX - 9) / 10) return false;
    v = v * 10 + (text[i] - '0');
  }
  value = text[0] == '-' ? -v : v;
  return true;
}

bool Parse32(const std::string& text, int32_t& value) {
  int64_t v = 0;
  if (!ParseNumber(text, v) || v < INT32_MIN || v > INT32_MAX) return false;
  value = static_cast<int32_t>(v);
  return true;
}

bool IsNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
         c == '-' || c == '+';
}

}  // namespace

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

std::string FullLine(const Leaf& leaf) {
  return leaf.relPath + "\t" + std::to_string(leaf.version) + "\t" + leaf.exeFile + "\t" +
         std::to_string(leaf.exeSize) + "\t" + std::string(1, leaf.type) + "\t" + Field(leaf.commonLeaf) + "\t" +
         std::to_string(leaf.commonVersion) + "\t" + std::to_string(leaf.oldVersion) + "\r\n";
}

std::string ShortLine(const Leaf& leaf) {
  return leaf.relPath + "\t" + std::to_string(leaf.version) + "\r\n";
}

std::string VersionAllText(const std::vector<Leaf>& leaves) {
  std::string text =
      "# leafRelPath\tleafVersion\tleafExeFile\tleafExeFileSize\ttype\tcommonLeaf\tcommonVersion\toldVersion\r\n";
  for (const Leaf& leaf : leaves) text += FullLine(leaf);
  return text;
}

std::vector<Leaf> ParseVersionAll(const std::string& text) {
  std::vector<Leaf> leaves;
  std::vector<std::string> lines = SplitLines(text);
  for (size_t n = 0; n < lines.size(); ++n) {
    const std::string& line = lines[n];
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f;
    size_t start = 0;
    while (start <= line.size()) {
      size_t end = line.find('\t', start);
      if (end == std::string::npos) end = line.size();
      if (end > start) f.push_back(line.substr(start, end - start));
      start = end + 1;
    }
    Leaf leaf;
    int64_t size = 0;
    bool good = f.size() == 8 && Parse32(f[1], leaf.version) && ParseNumber(f[3], size) && size >= 0 &&
                f[4].size() == 1 && (f[4] == "F" || f[4] == "C" || f[4] == "L") && Parse32(f[6], leaf.commonVersion) &&
                Parse32(f[7], leaf.oldVersion);
    if (!good) throw std::runtime_error("versionAll.txt line " + std::to_string(n + 1) + " is malformed: " + line);
    leaf.relPath = f[0];
    leaf.exeFile = f[2];
    leaf.exeSize = size;
    leaf.type = f[4][0];
    leaf.commonLeaf = f[5] == "-" ? "" : f[5];
    leaves.push_back(leaf);
  }
  return leaves;
}

const std::vector<std::string>& ComponentKeys() {
  static const std::vector<std::string> keys = {"type",      "subtype",     "objectName",    "pciId",         "version",
                                                "severity",  "reboot",      "installTime",   "prerequisite",  "os",
                                                "mandatory", "packageFile", "formatVersion", "minStepVersion"};
  return keys;
}

std::string ComponentText(const Leaf& leaf) {
  std::string text = "# component description of " + leaf.relPath + "\r\n";
  for (const auto& [key, value] : leaf.component) text += key + "=" + value + "\r\n";
  return text;
}

std::vector<std::pair<std::string, std::string>> ParseComponent(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> pairs;
  for (const std::string& line : SplitLines(text)) {
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    if (eq == std::string::npos || eq == 0) throw std::runtime_error("component description: bad line: " + line);
    pairs.emplace_back(line.substr(0, eq), line.substr(eq + 1));
  }
  return pairs;
}

std::string VersionTreeText(const VersionTreeNumbers& n) {
  return std::string(kTitle) + " : " + std::to_string(n.treeVersion) + "\r\n" +
         "# VERSIONALLEXE_FILESIZE=" + std::to_string(n.versionAllSize) + "\r\n" +
         "# ZTPAR_FILESIZE=" + std::to_string(n.ztParSize) + "\r\n" +
         "# Check_VERSIONALLEXE_FILESIZE=" + std::to_string(n.checkVersionAllSize) + "\r\n" +
         "# Check_ZTPAR_FILESIZE=" + std::to_string(n.checkZtParSize) + "\r\n" +
         "# Check_Version=" + std::to_string(n.checkVersion) + "\r\n";
}

int64_t ParseTreeVersion(const std::string& text) {
  for (const std::string& line : SplitLines(text)) {
    size_t title = line.find(kTitle);
    if (title == std::string::npos) continue;
    size_t colon = line.find(':', title + sizeof kTitle - 1);
    if (colon == std::string::npos) continue;
    size_t start = line.find_first_not_of(' ', colon + 1);
    size_t end = start == std::string::npos ? start : line.find_first_not_of("-0123456789", start);
    int64_t version = 0;
    if (start != std::string::npos && ParseNumber(line.substr(start, end - start), version)) return version;
  }
  throw std::runtime_error("versionTree.txt has no tree version");
}

std::string StopText(bool updateRuns) {
  if (!updateRuns) return "No update of this server runs.\r\n";
  std::string head = "An update of this server runs: clients wait while this file has the indicator size.\r\n";
  return head + std::string(kIndicatorSize - head.size() - 2, '.') + "\r\n";
}

std::string IndicatorText() {
  return "NAME=Stop.txt\r\nSIZE=" + std::to_string(kIndicatorSize) + "\r\n";
}

void CheckRelPath(const std::string& relPath) {
  if (relPath.empty()) throw std::runtime_error("empty leaf path");
  if (relPath.size() > 240) throw std::runtime_error("leaf path longer than 240 characters: " + relPath);
  if (relPath[0] == '/' || relPath[0] == '\\' || relPath.find(':') != std::string::npos)
    throw std::runtime_error("leaf path must be relative: " + relPath);
  size_t start = 0;
  while (start <= relPath.size()) {
    size_t end = relPath.find('/', start);
    if (end == std::string::npos) end = relPath.size();
    std::string element = relPath.substr(start, end - start);
    if (element == "..") throw std::runtime_error("leaf path with \"..\": " + relPath);
    if (element.empty() || element[0] == '.')
      throw std::runtime_error("leaf path with an empty element or one starting with a dot: " + relPath);
    if (!std::all_of(element.begin(), element.end(), IsNameChar))
      throw std::runtime_error("leaf path elements take letters, digits and ._+- only: " + relPath);
    start = end + 1;
  }
}

void CheckPackageName(const std::string& name) {
  if (name.size() < 5 || name.size() > 100 || name[0] == '.' || !std::all_of(name.begin(), name.end(), IsNameChar) ||
      Lower(name.substr(name.size() - 4)) != ".exe")
    throw std::runtime_error("package name must be letters, digits and ._+- ending in .exe: " + name);
}

void CheckFieldText(const std::string& what, const std::string& text, bool allowEmpty) {
  if (!allowEmpty && text.empty()) throw std::runtime_error(what + " is empty");
  if (text.find_first_of("\t\r\n") != std::string::npos) throw std::runtime_error(what + " holds a TAB or line break");
}

}  // namespace treetext
