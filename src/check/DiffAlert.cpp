#include "check/DiffAlert.h"

#include "base/WFormat.h"
#include "engine/ORMUX.h"
#include "foundation/CDebug.h"
#include "foundation/TextLineReader.h"

namespace {

const char16_t* Text(const char16_t* text) {
  return text ? text : u"";
}

bool IsWhite(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\v' || c == u'\f';
}

}  // namespace

DiffAlert::DiffAlert(const WString* oldFile, const WString& newFileName) {
  TRACE(3, u"\nDiffAlert::DiffAlert()\t: START");
  if (oldFile) readZtNewFile(*oldFile);
  if (!newFile.Open(newFileName, false))
    TRACE(1, u"\nDiffAlert::DiffAlert()\t: >>>ERROR: cannot open %s for writing", newFileName.c_str());
  TRACE(3, u"\nDiffAlert::DiffAlert()\t: END, old entries=%d", numberZtNew);
}

DiffAlert::~DiffAlert() {
  newFile.Close();
  TRACE(3, u"\nDiffAlert::~DiffAlert()\t: new components=%d, mailFlag=%d", numberNewComponents,
        static_cast<int>(mailFlag));
}

int DiffAlert::readZtNewFile(const WString& oldFile) {
  TextLineReader reader;
  WString piece;
  if (!reader.Open(oldFile, PeopleTextFile::CodePage()) || !reader.ReadLine(piece, kLineBufferChars - 1)) {
    TRACE(2, u"\nDiffAlert::readZtNewFile()\t: no file %s, take all new components for mail message", oldFile.c_str());
    return 0;
  }
  // The path of a line without a delimiter stays the one of the line before, as the fixed path
  // buffer of the reader keeps it.
  WString path;
  do {
    size_t bar = piece.find(u'|');
    if (bar == WString::npos) {
      TRACE(1, u"\nDiffAlert::readZtNewFile()\t: >>>ERROR: format of ztNewFile <%s> wrong, missing delimeter '|'",
            piece.c_str());
    } else {
      path = piece.substr(0, bar);
      if (g_Debug.IsActive()) {
        WString rest = piece.substr(bar + 1);
        size_t second = rest.find(u'|');
        WString name = rest.substr(0, second);
        WString installed =
            second == WString::npos ? WString() : rest.substr(second + 1, rest.find(u'|', second + 1) - second - 1);
        TRACE(5, u"\nDiffAlert::readZtNewFile()\t: path=%s, name=%s, installed=%s", path.c_str(), name.c_str(),
              installed.c_str());
      }
    }
    if (numberZtNew >= kMaxOldEntries) {
      TRACE(1, u"\nDiffAlert::readZtNewFile()\t: too many entries in file %s, max=%d", oldFile.c_str(), kMaxOldEntries);
      break;
    }
    oldComponents[static_cast<size_t>(numberZtNew++)] = path;
  } while (reader.ReadLine(piece, kLineBufferChars - 1));
  return numberZtNew;
}

bool DiffAlert::isNewComponent(const WString& path) const {
  for (int32_t i = 0; i < numberZtNew; ++i)
    if (oldComponents[static_cast<size_t>(i)] == path) return false;
  return true;
}

int DiffAlert::addNewComp2File(const UpdateElement* element) {
  if (!element) return -1;
  if (!(element->Upgrade && element->VersionRanking == 1)) return numberNewComponents;
  WString path = Text(element->FwPath);
  if (isNewComponent(path)) {
    mailFlag = 1;
    ++numberNewComponents;
    mailList += path + u"\n";
    TRACE(2, u"\nDiffAlert::addNewComp2File()\t: new component %s", path.c_str());
  }
  if (newFile.IsOpen())
    newFile.Write(WFormat(u"%s|%s|%s|%s|%s\n", path.c_str(), Text(element->ProdName), Text(element->InstVersion),
                          Text(element->NewVersion), Text(element->severity)));
  return numberNewComponents;
}

WString DiffAlert::getMailList() const {
  size_t end = mailList.size();
  while (end > 0 && IsWhite(mailList[end - 1])) --end;
  return mailList.substr(0, end);
}
