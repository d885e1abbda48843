#include "platform/FileTree.h"

#include <aclapi.h>

#include <vector>

#include "platform/win32/Win32Util.h"

namespace platform {

namespace {

// Trees are walked with full paths in the long form ("\\?\"), so that deep trees stay reachable;
// messages show the ordinary form.
WString Native(const WString& path) {
  WString p = Backslashes(path);
  while (p.size() > 3 && p.back() == u'\\') p.pop_back();
  if (p.rfind(u"\\\\?\\", 0) == 0) return p;
  DWORD n = GetFullPathNameW(W32(p), 0, nullptr, nullptr);
  if (n == 0) return p;
  std::vector<wchar_t> buf(n + 1);
  n = GetFullPathNameW(W32(p), n + 1, buf.data(), nullptr);
  WString full(U16(buf.data()), n);
  if (full.rfind(u"\\\\", 0) == 0) return u"\\\\?\\UNC\\" + full.substr(2);
  if (full.size() >= 2 && full[1] == u':') return u"\\\\?\\" + full;
  return full;
}

WString Shown(const WString& native) {
  if (native.rfind(u"\\\\?\\UNC\\", 0) == 0) return u"\\\\" + native.substr(8);
  if (native.rfind(u"\\\\?\\", 0) == 0) return native.substr(4);
  return native;
}

void Problem(WString& error, const char16_t* what, const WString& path, DWORD code) {
  if (!error.empty()) error += u'\n';
  error += what;
  error += u" '" + Shown(path) + u"': ";
  wchar_t* text = nullptr;
  DWORD n = FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                           nullptr, code, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  WString message = n && text ? WString(U16(text), n) : WString();
  if (text) LocalFree(text);
  while (!message.empty() && (message.back() == u'\n' || message.back() == u'\r' || message.back() == u' '))
    message.pop_back();
  error += message.empty() ? u"error" : message;
  error += u" (" + WFromAscii(std::to_string(code)) + u")";
}

struct Found {
  WString name;
  DWORD attributes;
};

bool List(const WString& dir, std::vector<Found>& found) {
  WIN32_FIND_DATAW fd;
  HANDLE h = FindFirstFileExW(W32(dir + u"\\*"), FindExInfoBasic, &fd, FindExSearchNameMatch, nullptr, 0);
  if (h == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_FILE_NOT_FOUND;
  do {
    WString name(U16(fd.cFileName));
    if (name != u"." && name != u"..") found.push_back({name, fd.dwFileAttributes});
  } while (FindNextFileW(h, &fd));
  DWORD e = GetLastError();
  FindClose(h);
  SetLastError(e);
  return e == ERROR_NO_MORE_FILES;
}

bool IsDirectory(const WString& path) {
  DWORD a = GetFileAttributesW(W32(path));
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

// Creates the directory with every missing level above it.
bool MakeDirectories(const WString& path, WString& error) {
  if (IsDirectory(path) || CreateDirectoryW(W32(path), nullptr)) return true;
  DWORD e = GetLastError();
  const size_t slash = path.find_last_of(u'\\');
  if (e == ERROR_PATH_NOT_FOUND && slash != WString::npos && slash > 0) {
    if (!MakeDirectories(path.substr(0, slash), error)) return false;
    if (CreateDirectoryW(W32(path), nullptr)) return true;
    e = GetLastError();
  }
  if (IsDirectory(path)) return true;  // made by someone else meanwhile
  Problem(error, u"cannot create the directory", path, e);
  return false;
}

// Overwrites, as the copy command's /Y does; a target the copy may not replace as it stands
// (read-only, hidden, system) loses those attributes first.
void CopyOneFile(const WString& from, const WString& to, WString& error) {
  if (CopyFileW(W32(from), W32(to), FALSE)) return;
  DWORD e = GetLastError();
  DWORD a = GetFileAttributesW(W32(to));
  if (e == ERROR_ACCESS_DENIED && a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY) &&
      (a & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM))) {
    SetFileAttributesW(W32(to), FILE_ATTRIBUTE_NORMAL);
    if (CopyFileW(W32(from), W32(to), FALSE)) return;
    e = GetLastError();
  }
  Problem(error, u"cannot copy to", to, e);
}

void CopyDirectory(const WString& from, const WString& to, WString& error) {
  std::vector<Found> found;
  if (!List(from, found)) {
    Problem(error, u"cannot read the directory", from, GetLastError());
    return;
  }
  for (const Found& f : found) {
    const WString src = from + u"\\" + f.name;
    const WString dst = to + u"\\" + f.name;
    if (!(f.attributes & FILE_ATTRIBUTE_DIRECTORY)) {
      CopyOneFile(src, dst, error);
    } else if (f.attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
      // A junction or directory link could lead anywhere, the tree itself included.
      Problem(error, u"not copied (a directory link)", src, ERROR_NOT_SUPPORTED);
    } else {
      DWORD a = GetFileAttributesW(W32(dst));
      if (a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY)) {
        SetFileAttributesW(W32(dst), FILE_ATTRIBUTE_NORMAL);
        DeleteFileW(W32(dst));
      }
      if (!CreateDirectoryW(W32(dst), nullptr) && GetLastError() != ERROR_ALREADY_EXISTS) {
        Problem(error, u"cannot create the directory", dst, GetLastError());
      } else {
        CopyDirectory(src, dst, error);
      }
    }
  }
}

// A link (junction, directory or file link) is removed as itself: its target is never entered.
void RemoveEntry(const WString& path, DWORD attributes, WString& error) {
  if (attributes & FILE_ATTRIBUTE_READONLY) SetFileAttributesW(W32(path), attributes & ~FILE_ATTRIBUTE_READONLY);
  if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) {
    if (!DeleteFileW(W32(path)) && GetLastError() != ERROR_FILE_NOT_FOUND) {
      Problem(error, u"cannot remove", path, GetLastError());
    }
    return;
  }
  if (!(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
    std::vector<Found> found;
    if (!List(path, found)) Problem(error, u"cannot read the directory", path, GetLastError());
    for (const Found& f : found) RemoveEntry(path + u"\\" + f.name, f.attributes, error);
  }
  if (!RemoveDirectoryW(W32(path)) && GetLastError() != ERROR_FILE_NOT_FOUND) {
    Problem(error, u"cannot remove the directory", path, GetLastError());
  }
}

bool Gone(const WString& path) {
  if (GetFileAttributesW(W32(path)) != INVALID_FILE_ATTRIBUTES) return false;
  DWORD e = GetLastError();
  return e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND;
}

bool SameOrInside(const WString& inner, const WString& outer) {
  if (inner.size() < outer.size() || !WEqualsNoCase(WStringView(inner).substr(0, outer.size()), outer)) return false;
  return inner.size() == outer.size() || inner[outer.size()] == u'\\';
}

}  // namespace

bool CopyTree(const WString& from, const WString& to, WString& error) {
  const WString source = Native(from);
  const WString target = Native(to);
  DWORD a = GetFileAttributesW(W32(source));
  if (a == INVALID_FILE_ATTRIBUTES || !(a & FILE_ATTRIBUTE_DIRECTORY)) {
    Problem(error, u"cannot copy", source, a == INVALID_FILE_ATTRIBUTES ? GetLastError() : ERROR_DIRECTORY);
    return false;
  }
  // A target inside the source (or the source itself) would copy without end or onto itself.
  if (SameOrInside(target, source)) {
    Problem(error, u"cannot copy into itself", source, ERROR_INVALID_PARAMETER);
    return false;
  }
  if (!MakeDirectories(target, error)) return false;
  const size_t before = error.size();
  CopyDirectory(source, target, error);
  return error.size() == before;
}

bool RemoveTree(const WString& path, WString& error) {
  if (path.empty()) return false;
  const WString p = Native(path);
  DWORD a = GetFileAttributesW(W32(p));
  if (a == INVALID_FILE_ATTRIBUTES) {
    if (Gone(p)) return true;
    Problem(error, u"cannot remove", p, GetLastError());
    return false;
  }
  RemoveEntry(p, a, error);
  return Gone(p);
}

bool FreeBytesForCaller(const WString& path, uint64_t& bytes) {
  // The volume's root: the drive of the path (a relative one resolved first), else the path
  // itself (a share).
  WString p = Backslashes(path);
  const bool unc = p.rfind(u"\\\\", 0) == 0;
  if (!unc && !(p.size() >= 2 && p[1] == u':')) p = Shown(Native(p));
  WString root;
  if (p.size() >= 2 && p[1] == u':') {
    root = p.substr(0, 2) + u"\\";
  } else {
    root = p;
    if (root.empty() || root.back() != u'\\') root += u'\\';
  }
  // No "insert a disk" box for an empty drive; the thread's own mode, the host's stays.
  DWORD previous = 0;
  SetThreadErrorMode(SEM_FAILCRITICALERRORS, &previous);
  ULARGE_INTEGER available{}, total{}, free{};
  BOOL ok = GetDiskFreeSpaceExW(W32(root), &available, &total, &free);
  SetThreadErrorMode(previous, nullptr);
  if (!ok) return false;
  bytes = available.QuadPart;
  return true;
}

bool GrantFullAccess(const WString& path, const WString& accountName) {
  DWORD sidSize = 0;
  DWORD domainSize = 0;
  SID_NAME_USE use;
  LookupAccountNameW(nullptr, W32(accountName), nullptr, &sidSize, nullptr, &domainSize, &use);
  if (sidSize == 0) return false;
  std::vector<BYTE> sid(sidSize);
  std::vector<wchar_t> domain(domainSize + 1);
  if (!LookupAccountNameW(nullptr, W32(accountName), sid.data(), &sidSize, domain.data(), &domainSize, &use)) {
    return false;
  }
  WString native = Backslashes(path);
  while (native.size() > 3 && native.back() == u'\\') native.pop_back();
  PACL oldAcl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (GetNamedSecurityInfoW(W32(native), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &oldAcl, nullptr,
                            &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  EXPLICIT_ACCESSW access{};
  access.grfAccessPermissions = FILE_ALL_ACCESS;
  access.grfAccessMode = GRANT_ACCESS;
  access.grfInheritance = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
  access.Trustee.TrusteeForm = TRUSTEE_IS_SID;
  access.Trustee.TrusteeType = use == SidTypeWellKnownGroup ? TRUSTEE_IS_WELL_KNOWN_GROUP : TRUSTEE_IS_UNKNOWN;
  access.Trustee.ptstrName = reinterpret_cast<LPWSTR>(sid.data());
  PACL newAcl = nullptr;
  DWORD result = SetEntriesInAclW(1, &access, oldAcl, &newAcl);
  if (result == ERROR_SUCCESS) {
    std::vector<wchar_t> name(native.begin(), native.end());
    name.push_back(0);
    result = SetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, newAcl,
                                   nullptr);
  }
  if (newAcl) LocalFree(newAcl);
  LocalFree(descriptor);
  return result == ERROR_SUCCESS;
}

}  // namespace platform
