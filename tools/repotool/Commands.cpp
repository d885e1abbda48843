#include "repotool/Commands.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "repotool/Files.h"
#include "repotool/Inventory.h"
#include "repotool/LeavesFolder.h"
#include "repotool/SampleLeaves.h"
#include "repotool/ServerTree.h"
#include "repotool/TreeText.h"
#include "repotool/ZipReader.h"
#include "repotool/ZipWriter.h"

namespace fs = std::filesystem;

namespace commands {

namespace {

fs::path PathOption(const Options& o, const char* name) {
  return files::FromUtf8(o.Require(name));
}

std::string ReadStub(const Options& o) {
  std::string stub = files::Read(PathOption(o, "stub"));
  if (stub.size() < 2 || stub.compare(0, 2, "MZ") != 0) throw std::runtime_error("--stub names no Windows program");
  return stub;
}

void SetComponent(Leaf& leaf, const std::string& key, const std::string& value) {
  for (auto& [k, v] : leaf.component)
    if (k == key) {
      v = value;
      return;
    }
  leaf.component.emplace_back(key, value);
}

std::string ComponentValue(const Leaf& leaf, const std::string& key) {
  for (const auto& [k, v] : leaf.component)
    if (k == key) return v;
  return "";
}

// "1.12.3" -> "1.12.4": the last number one higher; a version without a last number stays.
std::string NextDottedVersion(const std::string& version) {
  size_t start = version.size();
  while (start > 0 && version[start - 1] >= '0' && version[start - 1] <= '9') --start;
  if (start == version.size() || version.size() - start > 9) return version;
  return version.substr(0, start) + std::to_string(std::stol(version.substr(start)) + 1);
}

// The next tree version and the index files that name it.
void Commit(ServerTree& tree) {
  tree.SetTreeVersion(tree.TreeVersion() + 1);
  tree.WriteIndex();
}

// Leaf paths a hostile server might send, each one leading out of the client's repository: by
// "..", from the file system's root, on a drive, with Windows separators, by an element that
// Windows shortens to ".." (it drops the dots and blanks at a name's end).
const std::vector<std::string> kHostileLeafPaths = {"../escape/leaf", "/abs/leaf",     "C:/drive/leaf", "a/../../x",
                                                    "..\\back\\leaf", ".../dots/leaf", ".. /blank/leaf"};
const std::vector<std::string> kHostileBacktrackPaths = {"../victim",      "/abs/victim", "C:/drive/victim",
                                                         "a/../../victim", "..\\victim",  ".../victim"};

// The paths given with --leaf, taken as they are (only what would break the line is refused), or
// the default set.
std::vector<std::string> HostilePaths(const Options& o, const std::vector<std::string>& defaults) {
  std::vector<std::string> paths = o.All("leaf");
  if (paths.empty()) return defaults;
  for (const std::string& path : paths) treetext::CheckFieldText("--leaf", path, false);
  return paths;
}

// Where the first line that is no comment starts (the text's end when there is none); a last
// comment line without its line end gets one.
size_t AfterLeadingComments(std::string& text) {
  size_t pos = 0;
  while (pos < text.size() && text[pos] == '#') {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) {
      text += "\r\n";
      return text.size();
    }
    pos = end + 1;
  }
  return pos;
}

// versionAll.exe with the given text and versionTree.txt with its size and the next tree version.
void CommitVersionAll(ServerTree& tree, const std::string& text) {
  tree.LoadTreeVersion();
  tree.WriteVersionAll(text);
  tree.SetTreeVersion(tree.TreeVersion() + 1);
  tree.WriteVersionTree(tree.CurrentNumbers());
}

void Done(const std::string& what) {
  std::printf("repotool: %s\n", what.c_str());
}

}  // namespace

int Sample(const Options& o) {
  o.Allow({"leaves", "count"});
  int count = static_cast<int>(o.Number("count", 20, 1, 10000));
  sampleleaves::Write(PathOption(o, "leaves"), count);
  Done(std::to_string(count) + " sample leaves in " + o.Require("leaves"));
  return 0;
}

int Build(const Options& o) {
  o.Allow({"leaves", "out", "stub", "tree-version", "client"});
  std::vector<Leaf> leaves = leavesfolder::Read(PathOption(o, "leaves"));
  std::string stub = ReadStub(o);
  fs::path out = PathOption(o, "out");
  long long treeVersion = o.Number("tree-version", 0, 0, INT32_MAX);  // checked before anything changes
  // A former tree in the way is replaced, and its version counts on; anything else stays untouched.
  int64_t previous = 0;
  if (fs::exists(out) && !fs::is_empty(out)) {
    if (!fs::is_regular_file(out / "versionTree.txt"))
      throw std::runtime_error("--out is not empty and holds no tree: " + o.Get("out"));
    try {
      previous = treetext::ParseTreeVersion(files::Read(out / "versionTree.txt"));
    } catch (const std::runtime_error&) {
      previous = 0;
    }
    for (const fs::directory_entry& e : fs::directory_iterator(out)) fs::remove_all(e.path());
  }
  ServerTree tree(out);
  tree.SetStub(stub);
  tree.SetTreeVersion(o.Has("tree-version") ? treeVersion : previous + 1);
  tree.Leaves() = leaves;
  for (Leaf& leaf : tree.Leaves())
    if (leaf.HasPackage()) tree.WritePackage(leaf, tree.DirectoryPayload(leaf, leaf.payloadDir));
  tree.WriteIndex();
  files::WriteAtomic(out / "backtrack.txt", "# leafRelPath\tosString\r\n");
  files::WriteAtomic(out / "Stop.txt", treetext::StopText(false));
  files::WriteAtomic(out / "ZenTrove" / "Stop.txt", treetext::StopText(false));
  if (o.Has("client"))
    files::WriteAtomic(PathOption(o, "client") / "UpdateIndicatorFile.txt", treetext::IndicatorText());
  Done(std::to_string(leaves.size()) + " leaves, tree version " + std::to_string(tree.TreeVersion()) + " in " +
       o.Get("out"));
  return 0;
}

int Bump(const Options& o) {
  o.Allow({"out", "leaf", "version", "component-version", "package", "files", "stub"});
  ServerTree tree(PathOption(o, "out"));
  tree.Load();
  if (o.Has("stub")) tree.SetStub(ReadStub(o));
  Leaf& leaf = tree.Find(o.Require("leaf"));
  if (!leaf.HasPackage() && (o.Has("files") || o.Has("package")))
    throw std::runtime_error(leaf.relPath + " is a link leaf: it has no package");
  // A withdrawn leaf's last version is the one its package still names.
  int32_t previous = leaf.version;
  if (previous < 0 && leaf.HasPackage()) previous = tree.PackageVersion(leaf);
  ServerTree::Payload payload;
  if (leaf.HasPackage())
    payload = o.Has("files") ? tree.DirectoryPayload(leaf, PathOption(o, "files")) : tree.PackagePayload(leaf);

  leaf.oldVersion = previous;
  leaf.version = static_cast<int32_t>(o.Number("version", static_cast<long long>(previous) + 1, -1, INT32_MAX));
  std::string componentVersion = o.Get("component-version", NextDottedVersion(ComponentValue(leaf, "version")));
  treetext::CheckFieldText("--component-version", componentVersion, true);
  SetComponent(leaf, "version", componentVersion);
  fs::path oldPackage = tree.PackagePath(leaf);
  if (o.Has("package")) {
    treetext::CheckPackageName(o.Get("package"));
    leaf.exeFile = o.Get("package");
    SetComponent(leaf, "packageFile", leaf.exeFile);
  }
  if (leaf.HasPackage()) {
    tree.WritePackage(leaf, payload);
    if (oldPackage != tree.PackagePath(leaf)) fs::remove(oldPackage);
  }
  Commit(tree);
  Done(leaf.relPath + " version " + std::to_string(leaf.version) + ", tree version " +
       std::to_string(tree.TreeVersion()));
  return 0;
}

int Withdraw(const Options& o) {
  o.Allow({"out", "leaf"});
  ServerTree tree(PathOption(o, "out"));
  tree.Load();
  Leaf& leaf = tree.Find(o.Require("leaf"));
  // The package stays on the server; the version says the leaf is gone.
  leaf.version = -1;
  Commit(tree);
  Done(leaf.relPath + " withdrawn, tree version " + std::to_string(tree.TreeVersion()));
  return 0;
}

int Backtrack(const Options& o) {
  o.Allow({"out", "leaf", "os"});
  fs::path out = PathOption(o, "out");
  std::vector<std::string> leaves = o.All("leaf");
  if (leaves.empty()) throw std::runtime_error("--leaf is required");
  std::string os = o.Get("os", "any");
  treetext::CheckFieldText("--os", os, false);
  if (os.find(' ') == 0) throw std::runtime_error("--os must not start with a space");
  ServerTree tree(out);
  tree.LoadTreeVersion();
  std::string text =
      fs::exists(out / "backtrack.txt") ? files::Read(out / "backtrack.txt") : "# leafRelPath\tosString\r\n";
  std::vector<std::string> lines = treetext::SplitLines(text);
  for (const std::string& leaf : leaves) {
    treetext::CheckRelPath(leaf);
    std::string line = leaf + "\t" + os;
    if (std::find(lines.begin(), lines.end(), line) != lines.end()) continue;
    if (!text.empty() && text.back() != '\n') text += "\r\n";
    text += line + "\r\n";
    lines.push_back(line);
  }
  files::WriteAtomic(out / "backtrack.txt", text);
  // The client reads backtrack.txt with a new tree.
  tree.SetTreeVersion(tree.TreeVersion() + 1);
  tree.WriteVersionTree(tree.CurrentNumbers());
  Done(std::to_string(leaves.size()) + " backtrack line(s), tree version " + std::to_string(tree.TreeVersion()));
  return 0;
}

int Stop(const Options& o) {
  o.Allow({"out"}, 1);
  std::string state = o.Positional().empty() ? "" : o.Positional()[0];
  if (state != "on" && state != "off") throw std::runtime_error("stop needs on or off");
  fs::path out = PathOption(o, "out");
  if (!fs::is_regular_file(out / "versionTree.txt")) throw std::runtime_error("no tree in " + o.Get("out"));
  std::string text = treetext::StopText(state == "on");
  files::WriteAtomic(out / "Stop.txt", text);
  files::WriteAtomic(out / "ZenTrove" / "Stop.txt", text);
  Done(state == "on" ? "Stop.txt says an update of the server runs" : "Stop.txt says no update runs");
  return 0;
}

int Break(const Options& o) {
  o.Allow({"out", "what", "leaf", "version", "os"});
  std::string what = o.Require("what");
  if (o.Has("version") && what != "hostile-lines") throw std::runtime_error("--version is for hostile-lines only");
  if (o.Has("os") && what != "hostile-backtrack") throw std::runtime_error("--os is for hostile-backtrack only");
  fs::path out = PathOption(o, "out");
  ServerTree tree(out);
  if (what == "wrong-size" || what == "bad-twin") {
    tree.LoadTreeVersion();
    treetext::VersionTreeNumbers n = tree.CurrentNumbers();
    if (what == "wrong-size") {
      n.versionAllSize += 1;
      n.checkVersionAllSize += 1;
    } else {
      n.checkZtParSize += 1;
    }
    tree.WriteVersionTree(n);
  } else if (what == "corrupt-line") {
    tree.Load();
    Leaf& leaf = tree.FindWithPackage(o.Get("leaf"));
    std::string text = treetext::VersionAllText(tree.Leaves());
    std::string good = treetext::FullLine(leaf);
    std::string bad = leaf.relPath + "\t" + std::to_string(leaf.version) + "x" +
                      good.substr(good.find('\t', leaf.relPath.size() + 1));
    text.replace(text.find(good), good.size(), bad);
    tree.WriteVersionAll(text);
    tree.SetTreeVersion(tree.TreeVersion() + 1);
    tree.WriteVersionTree(tree.CurrentNumbers());
  } else if (what == "short-version-leaf") {
    tree.Load();
    Leaf& leaf = tree.FindWithPackage(o.Get("leaf"));
    tree.WriteZtPar(leaf.relPath);
    tree.SetTreeVersion(tree.TreeVersion() + 1);
    tree.WriteVersionTree(tree.CurrentNumbers());
  } else if (what == "short-package" || what == "corrupt-package" || what == "missing-package") {
    tree.Load();
    fs::path package = tree.PackagePath(tree.FindWithPackage(o.Get("leaf")));
    std::string bytes = files::Read(package);
    if (what == "short-package") {
      files::WriteAtomic(package, bytes.substr(0, bytes.size() / 2));
    } else if (what == "corrupt-package") {
      // One byte inside the largest entry's data: the sizes stay, the content fails its CRC.
      ZipReader zip(bytes, package.filename().string());
      const ZipReader::Entry* largest = nullptr;
      for (const ZipReader::Entry& e : zip.Entries())
        if (!largest || e.compressedSize > largest->compressedSize) largest = &e;
      if (!largest || largest->compressedSize == 0) throw std::runtime_error("the package has no data to corrupt");
      bytes[largest->dataOffset + largest->compressedSize / 2] ^= 0x55;
      files::WriteAtomic(package, bytes);
    } else {
      fs::remove(package);
    }
  } else if (what == "comment-only") {
    // Every leaf line becomes a comment: a tree version to take over, and no leaf to look at.
    std::string text;
    for (const std::string& line : treetext::SplitLines(tree.LoadVersionAllText()))
      text += (line.empty() || line[0] == '#' ? "" : "#") + line + "\r\n";
    CommitVersionAll(tree, text);
  } else if (what == "hostile-lines") {
    // In front of every leaf line, so that the client meets them before the leaves it should
    // still bring up to date. Read as raw text: a tree broken before may be broken again.
    long long version = o.Number("version", 1, -1, INT32_MAX);
    std::string text = tree.LoadVersionAllText();
    std::string lines;
    for (const std::string& path : HostilePaths(o, kHostileLeafPaths))
      lines += path + "\t" + std::to_string(version) + "\thostile.exe\t1000\tF\t-\t0\t0\r\n";
    text.insert(AfterLeadingComments(text), lines);
    CommitVersionAll(tree, text);
  } else if (what == "hostile-backtrack") {
    std::string os = o.Get("os", "any");
    treetext::CheckFieldText("--os", os, false);
    tree.LoadTreeVersion();
    std::string text =
        fs::exists(out / "backtrack.txt") ? files::Read(out / "backtrack.txt") : "# leafRelPath\tosString\r\n";
    if (!text.empty() && text.back() != '\n') text += "\r\n";
    for (const std::string& path : HostilePaths(o, kHostileBacktrackPaths)) text += path + "\t" + os + "\r\n";
    files::WriteAtomic(out / "backtrack.txt", text);
    tree.SetTreeVersion(tree.TreeVersion() + 1);
    tree.WriteVersionTree(tree.CurrentNumbers());
  } else {
    throw std::runtime_error(
        "--what must be wrong-size, bad-twin, corrupt-line, short-version-leaf, short-package, "
        "corrupt-package, missing-package, comment-only, hostile-lines or hostile-backtrack");
  }
  Done("tree broken: " + what);
  return 0;
}

int Inventory(const Options& o) {
  o.Allow({"leaves", "out", "max", "os"});
  long long maxComponents = o.Number("max", 99, 1, INT32_MAX);
  fs::path out = PathOption(o, "out");
  if (fs::is_directory(out)) throw std::runtime_error("--out is a directory: " + o.Get("out"));
  std::vector<Leaf> leaves = leavesfolder::Read(PathOption(o, "leaves"));
  inventory::Result result = inventory::Text(leaves, o.Get("os", "linux"), maxComponents);
  files::WriteAtomic(out, result.text);
  Done("inventory of " + std::to_string(result.components) + " component(s) in " + o.Get("out"));
  return 0;
}

int Evil(const Options& o) {
  o.Allow({"out", "stub", "entry", "name"});
  std::string entry = o.Require("entry");
  ZipWriter zip(ReadStub(o));
  // A harmless entry first: a stub that checks entry by entry while writing would write it.
  zip.AddFile("harmless.txt", "written only by a stub that does not check first\r\n");
  if (entry.compare(0, 8, "symlink:") == 0)
    zip.AddSymlink(o.Get("name", "link"), entry.substr(8));
  else
    zip.AddFile(entry, "hostile\r\n");
  files::WriteAtomic(PathOption(o, "out"), zip.Finish());
  Done("hostile archive " + o.Get("out"));
  return 0;
}

}  // namespace commands
