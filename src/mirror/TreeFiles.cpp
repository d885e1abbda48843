#include "mirror/TreeFiles.h"

#include "foundation/CDebug.h"
#include "foundation/TextLineReader.h"
#include "mirror/DLUtils.h"

namespace treefiles {

int32_t GetTreeVersion(const WString& file) {
  TextLineReader reader;
  if (!reader.Open(file)) {
    TRACE(1, u"treefiles::GetTreeVersion()\t: cannot open '%s'\n", file.c_str());
    return -1;
  }
  const WString title = kTreeTitle;
  WString line;
  while (reader.ReadLine(line, kTitleLineChars)) {
    size_t at = line.find(title);
    if (at == WString::npos) continue;
    // The first title line decides, with or without a colon behind the title.
    size_t colon = line.find(u':', at + title.size());
    if (colon == WString::npos) return -1;
    int32_t version = 0;
    DLUtils::ScanLong(line, colon + 1, version);
    return version;
  }
  return -1;
}

int GetSpecialFileSizes(const WString& file, int32_t treeVersion, SpecialFileSizes& sizes) {
  int32_t allExe = 0, par = 0, checkAllExe = 0, checkPar = 0, checkVersion = 0;
  if (DLUtils::GetIntFromFile(file, u"# VERSIONALLEXE_FILESIZE", allExe) != 0 ||
      DLUtils::GetIntFromFile(file, u"# ZTPAR_FILESIZE", par) != 0 ||
      DLUtils::GetIntFromFile(file, u"# Check_VERSIONALLEXE_FILESIZE", checkAllExe) != 0 ||
      DLUtils::GetIntFromFile(file, u"# Check_ZTPAR_FILESIZE", checkPar) != 0 ||
      DLUtils::GetIntFromFile(file, u"# Check_Version", checkVersion) != 0) {
    TRACE(1, u"treefiles::GetSpecialFileSizes()\t: a key of '%s' is missing\n", file.c_str());
    return -1;
  }
  if (allExe != checkAllExe || par != checkPar || checkVersion != treeVersion) {
    TRACE(1, u"treefiles::GetSpecialFileSizes()\t: twins of '%s' differ (%d/%d %d/%d %d/%d)\n", file.c_str(), allExe,
          checkAllExe, par, checkPar, checkVersion, treeVersion);
    return -1;
  }
  sizes.versionAllExe = allExe;
  sizes.ztParTree = par;
  return 0;
}

bool ParseBacktrackLine(const WString& line, WString& leafRelPath, WString& osString) {
  if (!line.empty() && line[0] == u'#') return false;
  WString* tokens[2] = {&leafRelPath, &osString};
  size_t pos = 0;
  for (WString* token : tokens) {
    size_t start = line.find_first_not_of(u"\t\r\n", pos);
    if (start == WString::npos) return false;
    size_t end = line.find_first_of(u"\t\r\n", start);
    if (end == WString::npos) end = line.size();
    *token = line.substr(start, end - start);
    pos = end;
  }
  return true;
}

}  // namespace treefiles
