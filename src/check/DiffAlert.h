// The memory of which updates an alert has already named. ztNew.txt holds the paths of the
// upgrades that the last comparison reported; a comparison reads it, counts every upgrade whose
// path is not in it as new, and writes the current list as new_ztNew.txt, which replaces
// ztNew.txt only once the whole comparison is done. Lives for one comparison.
#pragma once

#include <array>
#include <cstdint>

#include "base/WString.h"
#include "foundation/PeopleTextFile.h"

struct UpdateElement;

class DiffAlert {
 public:
  static constexpr int kMaxOldEntries = 200;
  // The line buffer of the old file: a longer line comes in pieces of at most 999 characters,
  // each piece taken as a line.
  static constexpr size_t kLineBufferChars = 1000;

  // `oldFile` may be null: then every upgrade is new.
  DiffAlert(const WString* oldFile, const WString& newFile);
  ~DiffAlert();
  DiffAlert(const DiffAlert&) = delete;
  DiffAlert& operator=(const DiffAlert&) = delete;

  // The number of paths read.
  int readZtNewFile(const WString& oldFile);
  // Exact comparison, case included.
  bool isNewComponent(const WString& path) const;
  // Only an upgrade (Upgrade set and ranking 1) counts and is written; -1 for a null element,
  // else the number of new components so far.
  int addNewComp2File(const UpdateElement* element);
  // The new paths, one per line, trailing white space removed.
  WString getMailList() const;
  int getNumberNewComponents() const { return numberNewComponents; }

 private:
  PeopleTextFile newFile;
  uint8_t mailFlag = 0;
  std::array<WString, kMaxOldEntries> oldComponents;
  WString mailList;
  int32_t numberZtNew = 0;
  int32_t numberNewComponents = 0;
};
