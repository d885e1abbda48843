#include "repotool/LeavesFolder.h"

#include <algorithm>
#include <map>
#include <set>
#include <stdexcept>

#include "repotool/Files.h"
#include "repotool/TreeText.h"

namespace fs = std::filesystem;

namespace leavesfolder {

namespace {

std::string Trim(const std::string& text) {
  size_t start = text.find_first_not_of(" \t");
  if (start == std::string::npos) return "";
  size_t end = text.find_last_not_of(" \t");
  return text.substr(start, end - start + 1);
}

bool ParseInt32(const std::string& text, int32_t& value) {
  if (text.empty()) return false;
  size_t i = text[0] == '-' ? 1 : 0;
  if (i == text.size() || text.size() > 11) return false;
  int64_t v = 0;
  for (; i < text.size(); ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    v = v * 10 + (text[i] - '0');
  }
  if (text[0] == '-') v = -v;
  if (v < INT32_MIN || v > INT32_MAX) return false;
  value = static_cast<int32_t>(v);
  return true;
}

void FindLeafDirectories(const fs::path& dir, std::vector<fs::path>& found) {
  bool isLeaf = fs::is_regular_file(dir / "leaf.ini");
  if (isLeaf) found.push_back(dir);
  for (const fs::directory_entry& e : fs::directory_iterator(dir)) {
    // A payload may hold anything, a leaf.ini too.
    if (!e.is_directory() || (isLeaf && e.path().filename() == "files")) continue;
    FindLeafDirectories(e.path(), found);
  }
}

struct LeafIni {
  std::map<std::string, std::string> leaf;  // lower-case keys
  std::vector<std::pair<std::string, std::string>> component;
};

LeafIni ParseLeafIni(const std::string& text, const std::string& where) {
  static const std::set<std::string> leafKeys = {"version", "type", "package", "common", "commonversion", "oldversion"};
  LeafIni ini;
  std::string section;
  std::vector<std::string> lines = treetext::SplitLines(text);
  for (size_t n = 0; n < lines.size(); ++n) {
    std::string line = Trim(lines[n]);
    auto fault = [&](const std::string& why) {
      return std::runtime_error(where + " line " + std::to_string(n + 1) + ": " + why);
    };
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      if (line.back() != ']') throw fault("bad section line");
      section = treetext::Lower(Trim(line.substr(1, line.size() - 2)));
      if (section != "leaf" && section != "component") throw fault("unknown section [" + section + "]");
      continue;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) throw fault("no key=value");
    std::string key = Trim(line.substr(0, eq));
    std::string value = Trim(line.substr(eq + 1));
    if (key.empty() || !std::all_of(key.begin(), key.end(), [](char c) {
          return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        }))
      throw fault("bad key");
    if (section == "leaf") {
      std::string lower = treetext::Lower(key);
      if (!leafKeys.count(lower)) throw fault("unknown key " + key + " in [leaf]");
      if (!ini.leaf.emplace(lower, value).second) throw fault("key " + key + " given twice");
    } else if (section == "component") {
      for (const auto& known : treetext::ComponentKeys())
        if (treetext::Lower(known) == treetext::Lower(key)) key = known;
      for (const auto& [k, v] : ini.component)
        if (k == key) throw fault("key " + key + " given twice");
      ini.component.emplace_back(key, value);
    } else {
      throw fault("key outside a section");
    }
  }
  return ini;
}

Leaf ReadLeaf(const fs::path& dir, const std::string& relPath, bool& commonVersionGiven) {
  std::string where = relPath + "/leaf.ini";
  LeafIni ini = ParseLeafIni(files::Read(dir / "leaf.ini"), where);
  auto fault = [&](const std::string& why) { return std::runtime_error(where + ": " + why); };
  auto get = [&](const char* key) {
    auto it = ini.leaf.find(key);
    return it == ini.leaf.end() ? std::string() : it->second;
  };
  Leaf leaf;
  leaf.relPath = relPath;
  if (!ParseInt32(get("version"), leaf.version)) throw fault("version= needs a signed decimal number");
  std::string type = get("type");
  if (type != "F" && type != "C" && type != "L") throw fault("type= must be F, C or L");
  leaf.type = type[0];
  if (ini.leaf.count("oldversion") && !ParseInt32(get("oldversion"), leaf.oldVersion))
    throw fault("oldVersion= needs a signed decimal number");
  if (ini.leaf.count("commonversion") && !ParseInt32(get("commonversion"), leaf.commonVersion))
    throw fault("commonVersion= needs a signed decimal number");
  commonVersionGiven = ini.leaf.count("commonversion") != 0;
  leaf.commonLeaf = get("common");
  if (!leaf.commonLeaf.empty()) treetext::CheckRelPath(leaf.commonLeaf);

  bool hasFiles = fs::is_directory(dir / "files");
  leaf.hasRelNote = fs::is_regular_file(dir / "rel_note.txt");
  if (leaf.type == 'L') {
    if (hasFiles || leaf.hasRelNote || ini.leaf.count("package"))
      throw fault("a link leaf has no package: no package=, files/ or rel_note.txt");
    leaf.exeFile = treetext::kLinkPlaceholder;
  } else {
    std::string last = relPath.substr(relPath.rfind('/') + 1);
    leaf.exeFile = ini.leaf.count("package") ? get("package") : last + ".exe";
    treetext::CheckPackageName(leaf.exeFile);
  }
  if (leaf.hasRelNote) leaf.relNote = files::Read(dir / "rel_note.txt");
  if (hasFiles) {
    leaf.payloadDir = dir / "files";
    // These names are the leaf's own files beside the payload once the package is unpacked.
    std::set<std::string> taken = {"zt.par", "ztlink.par", "rel_note.txt", "versionleaf.txt",
                                   treetext::Lower(leaf.exeFile)};
    for (const fs::directory_entry& e : fs::directory_iterator(leaf.payloadDir))
      if (taken.count(treetext::Lower(files::ToUtf8(e.path().filename()))))
        throw fault("files/ holds " + files::ToUtf8(e.path().filename()) + ", a name the leaf itself uses");
  }
  for (const auto& [key, value] : ini.component) {
    if (key == "packageFile") throw fault("packageFile= is written by repotool");
    treetext::CheckFieldText(where + ": " + key, value, true);
  }
  CompleteComponent(leaf, ini.component);
  return leaf;
}

}  // namespace

void CompleteComponent(Leaf& leaf, const std::vector<std::pair<std::string, std::string>>& given) {
  std::string last = leaf.relPath.substr(leaf.relPath.rfind('/') + 1);
  std::map<std::string, std::string> defaults = {
      {"type", "FIRMWARE"},
      {"objectName", last},
      {"version", "1.0." + std::to_string(std::max(leaf.version, 0))},
      {"severity", "recommended"},
      {"reboot", "no"},
      {"installTime", "60"},
      {"os", "any"},
      {"mandatory", "0"},
      {"formatVersion", "1"},
  };
  leaf.component.clear();
  for (const std::string& key : treetext::ComponentKeys()) {
    std::string value = defaults[key];
    for (const auto& [k, v] : given)
      if (k == key) value = v;
    if (key == "packageFile") value = leaf.HasPackage() ? leaf.exeFile : "";
    leaf.component.emplace_back(key, value);
  }
  for (const auto& [k, v] : given)
    if (std::find(treetext::ComponentKeys().begin(), treetext::ComponentKeys().end(), k) ==
        treetext::ComponentKeys().end())
      leaf.component.emplace_back(k, v);
}

std::vector<Leaf> Read(const fs::path& dir) {
  if (!fs::is_directory(dir)) throw std::runtime_error("no leaves folder: " + files::ToUtf8(dir));
  std::vector<fs::path> dirs;
  FindLeafDirectories(dir, dirs);
  std::vector<Leaf> leaves;
  std::map<std::string, size_t> byLower;
  std::set<std::string> needsCommonVersion;
  for (const fs::path& leafDir : dirs) {
    std::string relPath = files::ToGenericUtf8(leafDir.lexically_relative(dir));
    if (relPath == ".") throw std::runtime_error("the leaves folder itself holds a leaf.ini");
    treetext::CheckRelPath(relPath);
    std::string lower = treetext::Lower(relPath);
    // The tree's own files and the directory of the second Stop.txt sit at the top.
    static const std::set<std::string> treeNames = {"versiontree.txt", "versionall.exe", "zt_par_tree.exe",
                                                    "backtrack.txt",   "stop.txt",       "zentrove"};
    if (treeNames.count(lower.substr(0, lower.find('/'))))
      throw std::runtime_error("leaf path collides with a file of the tree: " + relPath);
    if (!byLower.emplace(lower, leaves.size()).second)
      throw std::runtime_error("two leaves differ only in case: " + relPath);
    bool given = false;
    leaves.push_back(ReadLeaf(leafDir, relPath, given));
    if (!given) needsCommonVersion.insert(relPath);
  }
  // A leaf inside another leaf's directory would be removed with it by the client.
  for (const auto& [lower, index] : byLower)
    for (size_t slash = lower.find('/'); slash != std::string::npos; slash = lower.find('/', slash + 1))
      if (byLower.count(lower.substr(0, slash)))
        throw std::runtime_error("leaf inside another leaf: " + leaves[index].relPath);
  std::sort(leaves.begin(), leaves.end(), [](const Leaf& a, const Leaf& b) { return a.relPath < b.relPath; });
  std::map<std::string, const Leaf*> byPath;
  for (const Leaf& leaf : leaves) byPath[leaf.relPath] = &leaf;
  for (Leaf& leaf : leaves) {
    if (leaf.commonLeaf.empty()) continue;
    auto it = byPath.find(leaf.commonLeaf);
    if (it == byPath.end() || it->second->type != 'C' || it->second == &leaf)
      throw std::runtime_error(leaf.relPath + ": common=" + leaf.commonLeaf + " names no common leaf (type C)");
    if (needsCommonVersion.count(leaf.relPath)) leaf.commonVersion = it->second->version;
  }
  if (leaves.empty()) throw std::runtime_error("no leaf.ini below " + files::ToUtf8(dir));
  return leaves;
}

}  // namespace leavesfolder
