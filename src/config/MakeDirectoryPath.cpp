#include "config/MakeDirectoryPath.h"

#include "foundation/CDebug.h"
#include "platform/FileIo.h"

namespace {

// Creation attempts of one call, all levels together. A path of 260 characters has fewer than
// 130 levels; each level needs at most two attempts when nothing else interferes.
constexpr int kAttemptBudget = 300;

int Make(const WString& path, int& budget) {
  if (budget-- <= 0) return 0;
  uint32_t error = platform::CreateDirectoryError(path);
  if (error == 0 || error == 183) return 1;
  if (error != 3) return 0;  // access denied and every other error end the attempt
  WString copy = path.substr(0, 259);
  for (;;) {
    size_t cut = copy.find_last_of(u"\\/");
    if (cut == WString::npos || cut == 0) return 0;
    WString parent = copy.substr(0, cut);
    if (Make(parent, budget) && budget-- > 0) {
      uint32_t again = platform::CreateDirectoryError(path);
      if (again == 0 || again == 183) return 1;
    }
    if (budget <= 0) {
      TRACE(1, u"\nMakeDirectoryPath()\t: >>>ERROR: giving up on \"%s\"", path.c_str());
      return 0;
    }
  }
}

}  // namespace

int MakeDirectoryPath(const WString& path) {
  int budget = kAttemptBudget;
  return Make(path, budget);
}
