// The repository's text files as a download server could send them (versionAll.txt and
// versionLeaf.txt lines, versionTree.txt, UpdateIndicatorFile.txt), on any bytes: the readers
// must not fail, the two parser entries must agree, and what a line yields must be well formed.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/TextLineReader.h"
#include "foundation/VersionLine.h"
#include "mirror/DLUtils.h"
#include "mirror/LeafPath.h"
#include "mirror/TreeFiles.h"
#include "platform/FileIo.h"

namespace {

WString FuzzFile() {
  static const WString path = [] {
    WString dir = platform::TempDirectory() + u"/em_versionfiles_fuzz";
    platform::CreateDirectoryPath(dir);
    return dir + u"/input.txt";
  }();
  return path;
}

// A path the leaf operations accept must stay below the root on every system: no element that
// is, or that Windows would shorten to, "." or "..", no drive, no root.
void CheckLeafPath(const WString& rel) {
  if (!leafpath::IsSafe(rel)) return;
  if (rel[0] == u'/' || rel[0] == u'\\' || rel.find(u':') != WString::npos) std::abort();
  size_t start = 0;
  for (;;) {
    size_t end = rel.find_first_of(u"/\\", start);
    const WString element = rel.substr(start, end == WString::npos ? WString::npos : end - start);
    WString shortened = element;
    while (!shortened.empty() && (shortened.back() == u'.' || shortened.back() == u' ')) shortened.pop_back();
    if (!element.empty() && shortened.empty()) std::abort();
    if (end == WString::npos) break;
    start = end + 1;
  }
}

void CheckLine(const WString& line) {
  VersionLineInfo info, strict;
  info.leafVersion = 12345;
  int rc = versionline::Parse(line, info);
  int strictRc = versionline::ParseStrict(line, strict);
  if (rc < -4 || rc > 0) std::abort();
  if (strictRc != ((rc == -3 || rc == -4) ? -1 : rc)) std::abort();
  if (rc == -2 && info.leafVersion != 12345) std::abort();  // a comment leaves the fields alone
  if (rc == 0 || rc == -3 || rc == -4) {
    if (info.leafRelPath.empty() || info.leafRelPath.find(u'\t') != WString::npos) std::abort();
    if (info.leafRelPath.find(u'\\') != WString::npos) std::abort();
  }
  if (rc == 0 || rc == -4) {
    if (info.leafExeFile.empty() || info.leafExeFile[0] == u' ' || info.leafExeFileSize < 0) std::abort();
  }
  if (rc == 0 && info.leafType != u'F' && info.leafType != u'C' && info.leafType != u'L') std::abort();
  if (rc == 0 || rc == -3 || rc == -4) CheckLeafPath(info.leafRelPath);
  WString rel, os;
  if (treefiles::ParseBacktrackLine(line, rel, os)) {
    if (rel.empty() || os.empty() || rel.find_first_of(u"\t\r\n") != WString::npos || line[0] == u'#') std::abort();
    CheckLeafPath(rel);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const WString file = FuzzFile();
  if (!platform::WriteWholeFile(file, data, size)) std::abort();

  TextLineReader reader;
  if (!reader.Open(file)) std::abort();
  WString piece;
  size_t total = 0;
  while (reader.ReadLine(piece, versionline::kVersionLineChars)) {
    if (piece.empty() || piece.size() > versionline::kVersionLineChars) std::abort();
    if (piece.find(u'\n') != WString::npos && piece.find(u'\n') != piece.size() - 1) std::abort();
    total += piece.size();
    CheckLine(piece);
  }
  if (total > size) std::abort();  // CR LF folds, nothing is added

  int32_t version = treefiles::GetTreeVersion(file);
  treefiles::SpecialFileSizes sizes;
  if (treefiles::GetSpecialFileSizes(file, version, sizes) == 0 && (sizes.versionAllExe == -1 || sizes.ztParTree == -1))
    std::abort();
  int32_t number = 0;
  DLUtils::GetIntFromFile(file, u"SIZE", number);
  WString name;
  size_t room = 99;
  if (DLUtils::GetStringFromFile(file, u"NAME", name, room) == 0) {
    if (room != name.size() || name.size() > 98 || name.find(u' ') != WString::npos) std::abort();
  }
  return 0;
}
