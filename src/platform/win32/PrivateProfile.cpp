// The system's own private-profile calls.
#include "platform/PrivateProfile.h"

#include "platform/win32/Win32Util.h"

namespace platform {

namespace {
const wchar_t* W(const char16_t* s) {
  return reinterpret_cast<const wchar_t*>(s);
}
}  // namespace

uint32_t ProfileReadText(const WString& file, const char16_t* section, const char16_t* key, const char16_t* def,
                         char16_t* buffer, uint32_t capacity) {
  if (capacity == 0 || buffer == nullptr) return 0;
  return GetPrivateProfileStringW(W(section), W(key), W(def), reinterpret_cast<wchar_t*>(buffer), capacity, W32(file));
}

uint32_t ProfileReadInt(const WString& file, const char16_t* section, const char16_t* key, int32_t def) {
  return GetPrivateProfileIntW(W(section), W(key), def, W32(file));
}

bool ProfileWrite(const WString& file, const char16_t* section, const char16_t* key, const char16_t* value) {
  if (!ProfileWriteStaysInItsLine(section, key, value)) return false;
  return WritePrivateProfileStringW(W(section), W(key), W(value), W32(file)) != FALSE;
}

bool IsOnReadOnlyMedium(const WString& path) {
  // The drive's root: "C:\" of a drive path, "\\server\share\" of a network path; anything else
  // (a relative path) is judged by the current drive.
  WString root;
  if (path.size() >= 2 && path[1] == u':') {
    root = path.substr(0, 2) + u"\\";
  } else if (path.size() >= 2 && (path[0] == u'\\' || path[0] == u'/') && (path[1] == u'\\' || path[1] == u'/')) {
    size_t seps = 0;
    for (size_t i = 2; i < path.size(); ++i) {
      if (path[i] == u'\\' || path[i] == u'/') {
        if (++seps == 2) {
          root = path.substr(0, i + 1);
          break;
        }
      }
    }
    if (root.empty()) root = path + u"\\";
  }
  return GetDriveTypeW(root.empty() ? nullptr : W32(root)) == DRIVE_CDROM;
}

WString SystemDirectory() {
  wchar_t buffer[MAX_PATH + 1];
  UINT n = GetSystemDirectoryW(buffer, MAX_PATH + 1);
  if (n == 0 || n > MAX_PATH) return WString();
  return WString(U16(buffer), n);
}

}  // namespace platform
