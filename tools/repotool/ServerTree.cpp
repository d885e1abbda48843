#include "repotool/ServerTree.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "repotool/Files.h"
#include "repotool/ZipReader.h"
#include "repotool/ZipWriter.h"

namespace fs = std::filesystem;

namespace {

bool IsLeafOwnFile(const Leaf& leaf, const std::string& entry) {
  for (const char* own : {"/zt.par", "/ztlink.par", "/rel_note.txt", "/versionLeaf.txt"})
    if (entry == leaf.relPath + own) return true;
  return false;
}

}  // namespace

ServerTree::ServerTree(fs::path dir) : m_dir(std::move(dir)) {}

void ServerTree::LoadTreeVersion() {
  m_treeVersion = treetext::ParseTreeVersion(files::Read(m_dir / "versionTree.txt"));
}

std::string ServerTree::LoadVersionAllText() {
  ZipReader versionAll(files::Read(m_dir / "versionAll.exe"), "versionAll.exe");
  const ZipReader::Entry* list = versionAll.Find("versionAll.txt");
  if (!list) throw std::runtime_error("versionAll.exe holds no versionAll.txt");
  m_stub = versionAll.Prefix();
  return versionAll.Read(*list);
}

void ServerTree::Load() {
  LoadTreeVersion();
  ZipReader versionAll(files::Read(m_dir / "versionAll.exe"), "versionAll.exe");
  const ZipReader::Entry* list = versionAll.Find("versionAll.txt");
  if (!list) throw std::runtime_error("versionAll.exe holds no versionAll.txt");
  m_leaves = treetext::ParseVersionAll(versionAll.Read(*list));
  m_stub = versionAll.Prefix();

  ZipReader ztPar(files::Read(m_dir / "ZT_par_tree.exe"), "ZT_par_tree.exe");
  std::map<std::string, const ZipReader::Entry*> entries;
  for (const ZipReader::Entry& e : ztPar.Entries()) entries[e.name] = &e;
  for (Leaf& leaf : m_leaves) {
    std::string par = leaf.relPath + (leaf.HasPackage() ? "/zt.par" : "/ztlink.par");
    auto it = entries.find(par);
    if (it == entries.end()) throw std::runtime_error("ZT_par_tree.exe holds no " + par);
    leaf.component = treetext::ParseComponent(ztPar.Read(*it->second));
    it = entries.find(leaf.relPath + "/rel_note.txt");
    leaf.hasRelNote = it != entries.end();
    if (leaf.hasRelNote) leaf.relNote = ztPar.Read(*it->second);
  }
}

Leaf& ServerTree::Find(const std::string& relPath) {
  treetext::CheckRelPath(relPath);
  for (Leaf& leaf : m_leaves)
    if (leaf.relPath == relPath) return leaf;
  throw std::runtime_error("the tree has no leaf " + relPath);
}

Leaf& ServerTree::FindWithPackage(const std::string& relPath) {
  if (!relPath.empty()) {
    Leaf& leaf = Find(relPath);
    if (!leaf.HasPackage()) throw std::runtime_error(relPath + " is a link leaf: it has no package");
    return leaf;
  }
  for (Leaf& leaf : m_leaves)
    if (leaf.HasPackage()) return leaf;
  throw std::runtime_error("the tree has no leaf with a package");
}

fs::path ServerTree::PackagePath(const Leaf& leaf) const {
  return m_dir / files::FromUtf8(leaf.relPath) / files::FromUtf8(leaf.exeFile);
}

ServerTree::Payload ServerTree::DirectoryPayload(const Leaf& leaf, const fs::path& dir) const {
  Payload payload;
  if (dir.empty()) return payload;
  for (const fs::directory_entry& e : fs::recursive_directory_iterator(dir)) {
    if (!e.is_regular_file()) continue;
    std::string below = files::ToGenericUtf8(e.path().lexically_relative(dir));
    payload.emplace_back(leaf.relPath + "/" + below, files::Read(e.path()));
  }
  std::sort(payload.begin(), payload.end());
  return payload;
}

ServerTree::Payload ServerTree::PackagePayload(const Leaf& leaf) const {
  ZipReader package(files::Read(PackagePath(leaf)), leaf.exeFile);
  Payload payload;
  for (const ZipReader::Entry& e : package.Entries())
    if (!IsLeafOwnFile(leaf, e.name)) payload.emplace_back(e.name, package.Read(e));
  return payload;
}

int32_t ServerTree::PackageVersion(const Leaf& leaf) const {
  ZipReader package(files::Read(PackagePath(leaf)), leaf.exeFile);
  const ZipReader::Entry* e = package.Find(leaf.relPath + "/versionLeaf.txt");
  if (!e) throw std::runtime_error(leaf.exeFile + " holds no versionLeaf.txt");
  std::string line = package.Read(*e);
  size_t tab = line.find('\t');
  if (tab == std::string::npos) throw std::runtime_error(leaf.exeFile + ": malformed versionLeaf.txt");
  return static_cast<int32_t>(std::stol(line.substr(tab + 1)));
}

void ServerTree::WritePackage(Leaf& leaf, const Payload& payload) {
  ZipWriter zip(m_stub);
  for (const auto& [name, data] : payload) zip.AddFile(name, data);
  zip.AddFile(leaf.relPath + "/zt.par", treetext::ComponentText(leaf));
  if (leaf.hasRelNote) zip.AddFile(leaf.relPath + "/rel_note.txt", leaf.relNote);
  // Last: the short versionLeaf.txt says "downloaded" and lands only after everything else.
  zip.AddFile(leaf.relPath + "/versionLeaf.txt", treetext::ShortLine(leaf));
  std::string bytes = zip.Finish();
  files::WriteAtomic(PackagePath(leaf), bytes);
  leaf.exeSize = static_cast<int64_t>(bytes.size());
}

void ServerTree::WriteIndex() {
  WriteZtPar();
  WriteVersionAll(treetext::VersionAllText(m_leaves));
  WriteVersionTree(CurrentNumbers());
}

void ServerTree::WriteZtPar(const std::string& shortLeaf) {
  ZipWriter zip(m_stub);
  for (const Leaf& leaf : m_leaves) {
    const std::string& p = leaf.relPath;
    zip.AddFile(p + "/versionLeaf.txt", p == shortLeaf ? treetext::ShortLine(leaf) : treetext::FullLine(leaf));
    if (leaf.HasPackage()) {
      zip.AddFile(p + "/zt.par", treetext::ComponentText(leaf));
      if (leaf.hasRelNote) zip.AddFile(p + "/rel_note.txt", leaf.relNote);
      // The marker: this leaf's package files are not here.
      zip.AddFile(p + "/0", "");
    } else {
      zip.AddFile(p + "/ztlink.par", treetext::ComponentText(leaf));
    }
  }
  files::WriteAtomic(m_dir / "ZT_par_tree.exe", zip.Finish());
}

void ServerTree::WriteVersionAll(const std::string& text) {
  ZipWriter zip(m_stub);
  zip.AddFile("versionAll.txt", text);
  files::WriteAtomic(m_dir / "versionAll.exe", zip.Finish());
}

treetext::VersionTreeNumbers ServerTree::CurrentNumbers() const {
  treetext::VersionTreeNumbers n;
  n.treeVersion = n.checkVersion = m_treeVersion;
  n.versionAllSize = n.checkVersionAllSize = static_cast<int64_t>(fs::file_size(m_dir / "versionAll.exe"));
  n.ztParSize = n.checkZtParSize = static_cast<int64_t>(fs::file_size(m_dir / "ZT_par_tree.exe"));
  return n;
}

void ServerTree::WriteVersionTree(const treetext::VersionTreeNumbers& numbers) {
  files::WriteAtomic(m_dir / "versionTree.txt", treetext::VersionTreeText(numbers));
}
