// A download server's tree on disk: the leaves' packages and the files that describe them
// (versionTree.txt, versionAll.exe, ZT_par_tree.exe). The leaves live in memory; the Write
// functions bring the files in line with them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "repotool/Leaf.h"
#include "repotool/TreeText.h"

class ServerTree {
 public:
  // Entry name and content of a package's payload.
  using Payload = std::vector<std::pair<std::string, std::string>>;

  explicit ServerTree(std::filesystem::path dir);

  // Reads versionTree.txt, versionAll.exe and ZT_par_tree.exe; the archives' stub is the one in
  // front of versionAll.exe. Throws std::runtime_error when the tree cannot be read.
  void Load();
  // Reads only versionTree.txt's tree version (enough for commands that leave the leaves alone).
  void LoadTreeVersion();
  // versionAll.txt as the server holds it, read without parsing its lines (a tree broken on
  // purpose may hold lines no leaf could have); takes the stub from versionAll.exe too.
  std::string LoadVersionAllText();

  std::vector<Leaf>& Leaves() { return m_leaves; }
  // Throws when the tree has no such leaf.
  Leaf& Find(const std::string& relPath);
  // The leaf named, or without a name the first leaf with a package.
  Leaf& FindWithPackage(const std::string& relPath);
  int64_t TreeVersion() const { return m_treeVersion; }
  void SetTreeVersion(int64_t version) { m_treeVersion = version; }
  void SetStub(std::string stub) { m_stub = std::move(stub); }

  std::filesystem::path PackagePath(const Leaf& leaf) const;
  // Every file below `dir`, named as the package holds it: <leafRelPath>/<path below dir>.
  Payload DirectoryPayload(const Leaf& leaf, const std::filesystem::path& dir) const;
  // The payload of the leaf's package as it is on the server: all but the leaf's own files.
  Payload PackagePayload(const Leaf& leaf) const;
  // The leaf version the package's short versionLeaf.txt names.
  int32_t PackageVersion(const Leaf& leaf) const;
  // Writes the leaf's package (payload, zt.par, rel_note.txt, versionLeaf.txt last) and sets
  // its size.
  void WritePackage(Leaf& leaf, const Payload& payload);

  // ZT_par_tree.exe, versionAll.exe, then versionTree.txt with their sizes.
  void WriteIndex();
  // `shortLeaf` names a leaf whose versionLeaf.txt gets the short form (a tree broken on purpose).
  void WriteZtPar(const std::string& shortLeaf = "");
  void WriteVersionAll(const std::string& text);
  // The tree version and the real sizes of versionAll.exe and ZT_par_tree.exe, twins equal.
  treetext::VersionTreeNumbers CurrentNumbers() const;
  void WriteVersionTree(const treetext::VersionTreeNumbers& numbers);

 private:
  std::filesystem::path m_dir;
  std::vector<Leaf> m_leaves;
  int64_t m_treeVersion = 0;
  std::string m_stub;
};
