// sfx: the stub of the repository's self-extracting archives. The program finds the zip appended
// to its own file and unpacks it into the current directory:
//   <archive> [-o] [-q] [-l]     -o overwrite existing files, -q no listing, -l list only
// Exit codes: 0 success; 1 corrupt or truncated archive, CRC mismatch, write failure, usage;
// 2 an entry that could write outside the current directory, or a link (nothing is written then).
// The module runs "<archive> -oq" in the mirror's root.
//
// Memory comes from the process heap and text lives in plain buffers: the stub links none of the
// C++ library's classes, which keeps it at the size of zlib's inflate and a little more.
#include <windows.h>
#include <zlib.h>

#include <cstdint>

namespace {

constexpr int kFailed = 1;
constexpr int kRefused = 2;

constexpr uint32_t kEndOfCentralDirectory = 0x06054b50;
constexpr uint32_t kCentralHeader = 0x02014b50;
constexpr uint32_t kLocalHeader = 0x04034b50;
constexpr uint16_t kFlagEncrypted = 0x0001;
constexpr uint16_t kFlagUtf8 = 0x0800;
constexpr uint32_t kUnixTypeMask = 0170000;
constexpr uint32_t kUnixSymlink = 0120000;
constexpr uint32_t kUnixDirectory = 0040000;
constexpr uint32_t kDosDirectory = 0x10;

// A "\\?\" path may have 32767 characters; an entry name up to 65535 bytes.
constexpr size_t kPathChars = 32768;
constexpr size_t kTextChars = 70000;

// Names without the UTF-8 flag are in the zip format's original code page, 437.
constexpr wchar_t kCp437High[128] = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE,
    0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9, 0x00FF, 0x00D6,
    0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA,
    0x00BA, 0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB, 0x2591, 0x2592, 0x2593, 0x2502,
    0x2524, 0x2561, 0x2562, 0x2556, 0x2555, 0x2563, 0x2551, 0x2557, 0x255D, 0x255C, 0x255B, 0x2510, 0x2514,
    0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F, 0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550,
    0x256C, 0x2567, 0x2568, 0x2564, 0x2565, 0x2559, 0x2558, 0x2552, 0x2553, 0x256B, 0x256A, 0x2518, 0x250C,
    0x2588, 0x2584, 0x258C, 0x2590, 0x2580, 0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4,
    0x03A6, 0x0398, 0x03A9, 0x03B4, 0x221E, 0x03C6, 0x03B5, 0x2229, 0x2261, 0x00B1, 0x2265, 0x2264, 0x2320,
    0x2321, 0x00F7, 0x2248, 0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0, 0x00A0};

struct Entry {
  const wchar_t* name = nullptr;  // as the archive names it
  const wchar_t* path = nullptr;  // below the current directory: backslashes, no empty or "." elements
  uint16_t method = 0;
  uint32_t crc = 0;
  uint32_t compressedSize = 0;
  uint32_t size = 0;
  const uint8_t* data = nullptr;
  bool directory = false;
};

// A plain text buffer with its length.
struct Text {
  wchar_t chars[kTextChars];
  size_t length;
};

Text g_message;
char g_utf8[kTextChars * 3];
wchar_t g_root[kPathChars];  // the current directory, "\\?\" form, ending in a backslash
size_t g_rootLength = 0;
wchar_t g_target[kPathChars];
// The file being written: a failure removes it, so no half file stays behind.
wchar_t g_partial[kPathChars + 32];

void Clear(Text& t) {
  t.length = 0;
  t.chars[0] = 0;
}

void Add(Text& t, const wchar_t* s, size_t n = SIZE_MAX) {
  for (size_t i = 0; i < n && s[i] && t.length + 1 < kTextChars; ++i) t.chars[t.length++] = s[i];
  t.chars[t.length] = 0;
}

void AddNumber(Text& t, uint64_t v) {
  wchar_t digits[24];
  size_t n = 0;
  do {
    digits[n++] = static_cast<wchar_t>(L'0' + v % 10);
    v /= 10;
  } while (v);
  while (n) Add(t, &digits[--n], 1);
}

// A console gets the text as characters; a pipe or file gets UTF-8.
void Put(DWORD stream, const Text& t) {
  HANDLE h = GetStdHandle(stream);
  DWORD mode = 0;
  DWORD written = 0;
  if (GetConsoleMode(h, &mode)) {
    WriteConsoleW(h, t.chars, static_cast<DWORD>(t.length), &written, nullptr);
    return;
  }
  int n = t.length ? WideCharToMultiByte(CP_UTF8, 0, t.chars, static_cast<int>(t.length), g_utf8, sizeof g_utf8,
                                         nullptr, nullptr)
                   : 0;
  WriteFile(h, g_utf8, static_cast<DWORD>(n > 0 ? n : 0), &written, nullptr);
}

// One line on standard error, then the end of the run.
[[noreturn]] void Fail(int code, const wchar_t* message, const wchar_t* name = nullptr, DWORD error = 0) {
  if (g_partial[0]) DeleteFileW(g_partial);
  Clear(g_message);
  Add(g_message, L"sfx: ");
  Add(g_message, message);
  if (name) {
    Add(g_message, L": ");
    Add(g_message, name);
  }
  if (error) {
    Add(g_message, L" (error ");
    AddNumber(g_message, error);
    Add(g_message, L")");
  }
  Add(g_message, L"\r\n");
  Put(STD_ERROR_HANDLE, g_message);
  ExitProcess(code);
}

void* Allocate(size_t bytes) {
  void* p = HeapAlloc(GetProcessHeap(), 0, bytes ? bytes : 1);
  if (!p) Fail(kFailed, L"out of memory");
  return p;
}

uint16_t U16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | p[1] << 8);
}
uint32_t U32(const uint8_t* p) {
  return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

const wchar_t* DecodeName(const uint8_t* p, uint16_t length, bool utf8) {
  wchar_t* name = static_cast<wchar_t*>(Allocate((length + 1u) * sizeof(wchar_t)));
  int n = length;
  if (utf8) {
    const char* s = reinterpret_cast<const char*>(p);
    n = length ? MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, s, length, name, length) : 0;
    if (length && n <= 0) Fail(kFailed, L"corrupt archive: an entry name is not UTF-8");
  } else {
    for (int i = 0; i < n; ++i) name[i] = p[i] < 0x80 ? static_cast<wchar_t>(p[i]) : kCp437High[p[i] - 0x80];
  }
  name[n] = 0;
  return name;
}

// Zip tools that write names in the local code page add the UTF-8 name in an extra field (0x7075:
// version 1, the CRC-32 of the name it stands for, the UTF-8 name). It counts while the CRC
// matches: a later tool that changed the name left the field behind.
const wchar_t* UnicodePathField(const uint8_t* name, uint16_t nameLength, const uint8_t* extra, uint16_t extraLength) {
  for (uint32_t i = 0; i + 4 <= extraLength;) {
    uint16_t tag = U16(extra + i);
    uint16_t size = U16(extra + i + 2);
    const uint8_t* field = extra + i + 4;
    i += 4u + size;
    if (i > extraLength) break;
    if (tag == 0x7075 && size > 5 && field[0] == 1 && U32(field + 1) == crc32(0, name, nameLength))
      return DecodeName(field + 5, static_cast<uint16_t>(size - 5), true);
  }
  return nullptr;
}

bool IsSeparator(wchar_t c) {
  return c == L'/' || c == L'\\';
}

// Refuses (exit 2) every entry that could write anywhere but below the current directory, or a
// link; builds the entry's relative path from its elements.
void CheckName(Entry& e, uint32_t externalAttributes) {
  const wchar_t* n = e.name;
  if (!n[0]) Fail(kFailed, L"corrupt archive: an entry without a name");
  if (IsSeparator(n[0])) Fail(kRefused, L"refused: absolute entry name", n);
  for (const wchar_t* c = n; *c; ++c)
    if (*c == L':') Fail(kRefused, L"refused: entry name with a drive or stream", n);
  if ((externalAttributes >> 16 & kUnixTypeMask) == kUnixSymlink) Fail(kRefused, L"refused: symbolic link", n);

  size_t length = 0;
  while (n[length]) ++length;
  wchar_t* path = static_cast<wchar_t*>(Allocate((length + 1) * sizeof(wchar_t)));
  size_t out = 0;
  for (size_t start = 0; start < length;) {
    size_t end = start;
    while (end < length && !IsSeparator(n[end])) ++end;
    size_t size = end - start;
    const wchar_t* element = n + start;
    start = end + 1;
    if (size == 0 || (size == 1 && element[0] == L'.')) continue;
    if (size == 2 && element[0] == L'.' && element[1] == L'.') Fail(kRefused, L"refused: entry name with \"..\"", n);
    // Windows drops trailing dots and spaces: "..." or ". ." could name the parent as well.
    if (element[size - 1] == L'.' || element[size - 1] == L' ')
      Fail(kRefused, L"refused: entry name element ends in a dot or space", n);
    for (size_t i = 0; i < size; ++i) {
      wchar_t c = element[i];
      if (c < 0x20 || c == L'<' || c == L'>' || c == L'"' || c == L'|' || c == L'?' || c == L'*')
        Fail(kRefused, L"refused: entry name with a character Windows forbids", n);
    }
    if (out) path[out++] = L'\\';
    for (size_t i = 0; i < size; ++i) path[out++] = element[i];
  }
  path[out] = 0;
  if (!out && !e.directory) Fail(kRefused, L"refused: entry name without a file name", n);
  e.path = path;
}

// The archive's entries, from the End Of Central Directory record at the end of the file.
Entry* ReadDirectory(const uint8_t* file, uint64_t size, uint16_t& count) {
  if (size < 22) Fail(kFailed, L"corrupt archive: no zip appended");
  // The record is 22 bytes; a comment of up to 65535 bytes may follow it.
  uint64_t lowest = size > 22 + 65535 ? size - 22 - 65535 : 0;
  uint64_t eocd = size - 22;
  while (U32(file + eocd) != kEndOfCentralDirectory || eocd + 22 + U16(file + eocd + 20) != size) {
    if (eocd == lowest) Fail(kFailed, L"corrupt or truncated archive: no end of central directory");
    --eocd;
  }
  const uint8_t* r = file + eocd;
  count = U16(r + 10);
  uint32_t cdSize = U32(r + 12);
  uint32_t cdOffset = U32(r + 16);
  if (U16(r + 4) != 0 || U16(r + 6) != 0 || U16(r + 8) != count)
    Fail(kFailed, L"multi-part archives are not supported");
  if (count == 0xFFFF || cdSize == 0xFFFFFFFF || cdOffset == 0xFFFFFFFF) Fail(kFailed, L"zip64 is not supported");
  if (cdSize > eocd || eocd - cdSize < cdOffset) Fail(kFailed, L"corrupt archive: central directory out of place");
  // Offsets count from the start of the file (a proper self-extracting archive) or from the start
  // of the zip (a zip appended to the stub as it is): the difference is the stub's length.
  uint64_t cdStart = eocd - cdSize;
  uint64_t shift = cdStart - cdOffset;

  Entry* entries = static_cast<Entry*>(Allocate(count * sizeof(Entry)));
  uint64_t p = cdStart;
  for (uint16_t i = 0; i < count; ++i) {
    const uint8_t* h = file + p;
    if (p + 46 > eocd || U32(h) != kCentralHeader) Fail(kFailed, L"corrupt archive: bad central directory");
    uint16_t flags = U16(h + 8);
    uint16_t nameLength = U16(h + 28);
    uint64_t next = p + 46 + nameLength + U16(h + 30) + U16(h + 32);
    if (next > eocd) Fail(kFailed, L"corrupt archive: bad central directory");
    Entry& e = entries[i];
    e = Entry{};
    e.name = UnicodePathField(h + 46, nameLength, h + 46 + nameLength, U16(h + 30));
    if (!e.name) e.name = DecodeName(h + 46, nameLength, (flags & kFlagUtf8) != 0);
    e.method = U16(h + 10);
    e.crc = U32(h + 16);
    e.compressedSize = U32(h + 20);
    e.size = U32(h + 24);
    uint32_t attributes = U32(h + 38);
    e.directory = (nameLength && IsSeparator(e.name[nameLength - 1])) || (attributes & kDosDirectory) ||
                  (attributes >> 16 & kUnixTypeMask) == kUnixDirectory;
    CheckName(e, attributes);
    if (!e.directory) {
      if (flags & kFlagEncrypted) Fail(kFailed, L"encrypted entries are not supported", e.name);
      if (e.method != 0 && e.method != 8) Fail(kFailed, L"unsupported compression method", e.name);
      if (e.method == 0 && e.compressedSize != e.size) Fail(kFailed, L"corrupt archive: stored size differs", e.name);
      uint64_t local = U32(h + 42) + shift;
      if (local + 30 > cdStart || U32(file + local) != kLocalHeader)
        Fail(kFailed, L"corrupt archive: bad local header", e.name);
      uint64_t data = local + 30 + U16(file + local + 26) + U16(file + local + 28);
      if (data + e.compressedSize > cdStart) Fail(kFailed, L"corrupt or truncated archive: data out of place", e.name);
      e.data = file + data;
    }
    p = next;
  }
  return entries;
}

// The current directory as a long path ("\\?\" form), so deep trees pass the 260-character limit.
void FindRoot() {
  wchar_t dir[kPathChars];
  DWORD n = GetCurrentDirectoryW(kPathChars, dir);
  if (n == 0 || n >= kPathChars - 16) Fail(kFailed, L"cannot read the current directory", nullptr, GetLastError());
  Text t;
  Clear(t);
  if (dir[0] == L'\\' && dir[1] == L'\\') {
    Add(t, dir[2] == L'?' ? L"" : L"\\\\?\\UNC\\");
    Add(t, dir[2] == L'?' ? dir : dir + 2);
  } else {
    Add(t, L"\\\\?\\");
    Add(t, dir);
  }
  if (t.chars[t.length - 1] != L'\\') Add(t, L"\\");
  for (size_t i = 0; i <= t.length; ++i) g_root[i] = t.chars[i];
  g_rootLength = t.length;
}

// g_target = root + the entry's path.
void Target(const Entry& e) {
  size_t n = g_rootLength;
  for (const wchar_t* c = e.path; *c; ++c) {
    if (n + 1 >= kPathChars) Fail(kFailed, L"path too long", e.name);
    g_target[n++] = *c;
  }
  for (size_t i = 0; i < g_rootLength; ++i) g_target[i] = g_root[i];
  g_target[n] = 0;
}

// Creates the directories that g_target's first `end` characters name, element by element.
void MakeDirectories(const Entry& e, size_t end) {
  for (size_t i = g_rootLength; i <= end; ++i) {
    if (i != end && g_target[i] != L'\\') continue;
    wchar_t keep = g_target[i];
    g_target[i] = 0;
    if (!CreateDirectoryW(g_target, nullptr)) {
      DWORD error = GetLastError();
      DWORD attributes = GetFileAttributesW(g_target);
      if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
        Fail(kFailed, L"cannot create the directory of", e.name, error);
    }
    g_target[i] = keep;
  }
}

void WriteAll(HANDLE file, const Entry& e, const uint8_t* data, DWORD length) {
  DWORD written = 0;
  if (!WriteFile(file, data, length, &written, nullptr) || written != length) {
    DWORD error = GetLastError();
    CloseHandle(file);
    Fail(kFailed, L"cannot write", e.name, error);
  }
}

uint8_t g_buffer[1 << 16];

void Extract(const Entry& e, bool overwrite) {
  Target(e);
  size_t length = 0;
  while (g_target[length]) ++length;
  size_t lastSlash = length;
  while (lastSlash > g_rootLength && g_target[lastSlash] != L'\\') --lastSlash;
  if (lastSlash > g_rootLength) MakeDirectories(e, lastSlash);

  Text t;
  Clear(t);
  Add(t, g_target);
  Add(t, L".sfx~");
  AddNumber(t, GetCurrentProcessId());
  for (size_t i = 0; i <= t.length; ++i) g_partial[i] = t.chars[i];
  HANDLE file = CreateFileW(g_partial, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    DWORD error = GetLastError();
    g_partial[0] = 0;
    Fail(kFailed, L"cannot create", e.name, error);
  }
  uLong crc = crc32(0, nullptr, 0);
  uint64_t total = 0;
  if (e.method == 0) {
    crc = crc32(crc, e.data, e.size);
    WriteAll(file, e, e.data, e.size);
    total = e.size;
  } else {
    z_stream z{};
    if (inflateInit2(&z, -MAX_WBITS) != Z_OK) {
      CloseHandle(file);
      Fail(kFailed, L"out of memory");
    }
    z.next_in = const_cast<Bytef*>(e.data);
    z.avail_in = e.compressedSize;
    int status = Z_OK;
    while (status != Z_STREAM_END) {
      z.next_out = g_buffer;
      z.avail_out = sizeof g_buffer;
      status = inflate(&z, Z_NO_FLUSH);
      DWORD produced = static_cast<DWORD>(sizeof g_buffer - z.avail_out);
      total += produced;
      if ((status != Z_OK && status != Z_STREAM_END) || total > e.size) {
        CloseHandle(file);
        Fail(kFailed, total > e.size ? L"corrupt data, longer than recorded" : L"corrupt or truncated data", e.name);
      }
      crc = crc32(crc, g_buffer, produced);
      WriteAll(file, e, g_buffer, produced);
    }
    inflateEnd(&z);
  }
  if (!CloseHandle(file)) Fail(kFailed, L"cannot write", e.name, GetLastError());
  if (total != e.size) Fail(kFailed, L"corrupt data, shorter than recorded", e.name);
  if (crc != e.crc) Fail(kFailed, L"CRC mismatch", e.name);
  if (overwrite) SetFileAttributesW(g_target, FILE_ATTRIBUTE_NORMAL);
  if (!MoveFileExW(g_partial, g_target, overwrite ? MOVEFILE_REPLACE_EXISTING : 0))
    Fail(kFailed, L"cannot write", e.name, GetLastError());
  g_partial[0] = 0;
}

const wchar_t kUsage[] = L"usage: <archive> [-o] [-q] [-l]   (-o overwrite, -q quiet, -l list only)\r\n";

void PutLine(DWORD stream, const wchar_t* a, const wchar_t* b = L"", const wchar_t* c = L"") {
  Clear(g_message);
  Add(g_message, a);
  Add(g_message, b);
  Add(g_message, c);
  Put(stream, g_message);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  bool overwrite = false;
  bool quiet = false;
  bool list = false;
  for (int i = 1; i < argc; ++i) {
    const wchar_t* a = argv[i];
    if (a[0] != L'-' || !a[1]) {
      PutLine(STD_ERROR_HANDLE, L"sfx: unknown argument ", argv[i], L"; ");
      PutLine(STD_ERROR_HANDLE, kUsage);
      return kFailed;
    }
    for (++a; *a; ++a) {
      if (*a == L'o') {
        overwrite = true;
      } else if (*a == L'q') {
        quiet = true;
      } else if (*a == L'l') {
        list = true;
      } else if (*a == L'h' || *a == L'?') {
        PutLine(STD_OUTPUT_HANDLE, kUsage);
        return 0;
      } else {
        PutLine(STD_ERROR_HANDLE, L"sfx: unknown option ", argv[i], L"; ");
        PutLine(STD_ERROR_HANDLE, kUsage);
        return kFailed;
      }
    }
  }

  wchar_t self[kPathChars];
  DWORD n = GetModuleFileNameW(nullptr, self, kPathChars);
  if (n == 0 || n >= kPathChars) Fail(kFailed, L"cannot find the archive's own file", nullptr, GetLastError());
  HANDLE file = CreateFileW(self, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  LARGE_INTEGER size{};
  if (file == INVALID_HANDLE_VALUE || !GetFileSizeEx(file, &size)) Fail(kFailed, L"cannot read", self, GetLastError());
  HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
  const void* view = mapping ? MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0) : nullptr;
  if (!view) Fail(kFailed, L"cannot read", self, GetLastError());
  uint16_t count = 0;
  Entry* entries = ReadDirectory(static_cast<const uint8_t*>(view), static_cast<uint64_t>(size.QuadPart), count);

  if (list) {
    for (uint16_t i = 0; i < count; ++i) {
      Clear(g_message);
      AddNumber(g_message, entries[i].size);
      Add(g_message, L"  ");
      Add(g_message, entries[i].name);
      Add(g_message, L"\r\n");
      Put(STD_OUTPUT_HANDLE, g_message);
    }
    return 0;
  }

  // Every entry passed its checks and nothing is written yet; files in the way end the run before
  // the first write too.
  FindRoot();
  for (uint16_t i = 0; i < count; ++i) {
    const Entry& e = entries[i];
    if (e.directory) continue;
    Target(e);
    DWORD attributes = GetFileAttributesW(g_target);
    if (attributes == INVALID_FILE_ATTRIBUTES) continue;
    if (attributes & FILE_ATTRIBUTE_DIRECTORY) Fail(kFailed, L"a directory is in the way", e.name);
    if (!overwrite) Fail(kFailed, L"file exists (-o overwrites)", e.name);
  }
  for (uint16_t i = 0; i < count; ++i) {
    const Entry& e = entries[i];
    if (e.directory) {
      Target(e);
      size_t end = 0;
      while (g_target[end]) ++end;
      if (e.path[0]) MakeDirectories(e, end);
    } else {
      Extract(e, overwrite);
    }
    if (!quiet) PutLine(STD_OUTPUT_HANDLE, e.name, L"\r\n");
  }
  return 0;
}
