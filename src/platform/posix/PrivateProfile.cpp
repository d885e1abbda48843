// Our own reader and writer of private-profile files, giving the results of the Windows build's
// system calls on the same files. The file is read whole at every call into sections of entries;
// a write changes that model and writes the whole file again under a new name, then renames it
// over the old one, so that a crash in the middle leaves the old file complete.
#include "platform/PrivateProfile.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "platform/CodePage.h"
#include "platform/FileIo.h"

namespace platform {

namespace {

// How the text of a file is stored. A file without a byte order mark is 8-bit text in the ANSI
// code page; an existing empty file counts as UTF-16, as the system treats it.
enum class Encoding { Ansi, Utf16, Utf8 };

struct Entry {
  WString name;
  bool hasValue = false;  // a line without "=" is an entry without a value: it reads as absent
  WString value;
};

struct Section {
  WString name;  // empty for the entries before the first header; such a section has no header line
  std::vector<Entry> entries;
};

struct Profile {
  Encoding encoding = Encoding::Ansi;
  std::vector<Section> sections;
};

bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\v' || c == u'\f';
}

WString TrimLeading(WStringView s) {
  size_t b = 0;
  while (b < s.size() && IsBlank(s[b])) ++b;
  return WString(s.substr(b));
}

WString Trim(WStringView s) {
  size_t b = 0, e = s.size();
  while (b < e && IsBlank(s[b])) ++b;
  while (e > b && IsBlank(s[e - 1])) --e;
  return WString(s.substr(b, e - b));
}

WString Decode(const std::string& bytes, Encoding& encoding) {
  WString text;
  if (bytes.empty()) {
    encoding = Encoding::Utf16;
  } else if (bytes.size() >= 2 && static_cast<uint8_t>(bytes[0]) == 0xFF && static_cast<uint8_t>(bytes[1]) == 0xFE) {
    encoding = Encoding::Utf16;
    // An odd last byte still counts as a character of its own.
    text.resize((bytes.size() - 1) / 2);
    const uint8_t* b = reinterpret_cast<const uint8_t*>(bytes.data()) + 2;
    const size_t pairs = (bytes.size() - 2) / 2;
    for (size_t i = 0; i < pairs; ++i) text[i] = static_cast<char16_t>(b[2 * i] | (b[2 * i + 1] << 8));
    if (pairs < text.size()) text[pairs] = b[2 * pairs];
  } else if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) {
    encoding = Encoding::Utf8;
    text = WFromUtf8(std::string_view(bytes).substr(3));
  } else {
    encoding = Encoding::Ansi;
    CodePageToWide(kCodePageAnsi, bytes.data(), bytes.size(), text);
  }
  return text;
}

std::string Encode(const WString& text, Encoding encoding) {
  std::string bytes;
  switch (encoding) {
    case Encoding::Utf16:
      bytes.reserve(2 + text.size() * 2);
      bytes.append("\xFF\xFE", 2);
      for (char16_t c : text) {
        bytes.push_back(static_cast<char>(c & 0xFF));
        bytes.push_back(static_cast<char>(c >> 8));
      }
      break;
    case Encoding::Utf8:
      bytes = "\xEF\xBB\xBF" + WToUtf8(text);
      break;
    case Encoding::Ansi:
      WideToCodePage(kCodePageAnsi, text, bytes);
      // An 8-bit file whose first entry begins with the characters of a byte order mark would be
      // read as UTF-16 or UTF-8 next time; a blank line in front keeps it 8-bit text.
      if (bytes.compare(0, 2, "\xFF\xFE") == 0 || bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) bytes.insert(0, "\r\n");
      break;
  }
  return bytes;
}

// Lines end at CR, LF or both; blank lines carry nothing and are not kept. A line starting with
// "[" and holding a "]" is a section header named by the text up to the last "]"; a header with
// nothing at all between the brackets is ignored. Every other line is an entry, comments included:
// a comment line is an entry that nobody asks for.
void Parse(const WString& text, Profile& profile) {
  profile.sections.assign(1, Section{});
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find_first_of(u"\r\n", pos);
    if (end == WString::npos) end = text.size();
    const WString line = Trim(WStringView(text).substr(pos, end - pos));
    pos = end + 1;
    if (line.empty()) continue;
    if (line[0] == u'[') {
      const size_t close = line.rfind(u']');
      if (close != WString::npos) {
        if (close == 1) continue;
        profile.sections.push_back(Section{Trim(WStringView(line).substr(1, close - 1)), {}});
        continue;
      }
    }
    Entry entry;
    const size_t eq = line.find(u'=');
    if (eq == WString::npos) {
      entry.name = line;
    } else {
      entry.name = Trim(WStringView(line).substr(0, eq));
      entry.hasValue = true;
      entry.value = Trim(WStringView(line).substr(eq + 1));
    }
    profile.sections.back().entries.push_back(std::move(entry));
  }
}

WString Serialise(const Profile& profile) {
  size_t length = 0;
  for (const Section& section : profile.sections) {
    length += section.name.size() + 5;
    for (const Entry& entry : section.entries) length += entry.name.size() + entry.value.size() + 3;
  }
  WString text;
  text.reserve(length);
  for (size_t i = 0; i < profile.sections.size(); ++i) {
    const Section& section = profile.sections[i];
    // Only the entries before the first header go without one. A later section whose name is
    // blank ("[ ]") keeps a header of blanks: without it its entries would join the section before.
    if (i > 0 || !section.name.empty()) {
      text += u'[';
      text += section.name.empty() ? WString(u" ") : section.name;
      text += u"]\r\n";
    }
    for (const Entry& entry : section.entries) {
      text += entry.name;
      if (entry.hasValue) {
        text += u'=';
        text += entry.value;
      }
      text += u"\r\n";
    }
  }
  return text;
}

// Whether the text comes back as it is from a file of this encoding.
bool Holds(Encoding encoding, const char16_t* text) {
  if (text == nullptr || encoding == Encoding::Utf16) return true;
  const WString wide(text);
  if (encoding == Encoding::Utf8) return WFromUtf8(WToUtf8(wide)) == wide;
  std::string bytes;
  bool lossy = false;
  WideToCodePage(kCodePageAnsi, wide, bytes, &lossy);
  WString back;
  CodePageToWide(kCodePageAnsi, bytes.data(), bytes.size(), back);
  return !lossy && back == wide;
}

// False when the file is absent or unreadable.
bool Load(const WString& file, Profile& profile) {
  std::string bytes;
  if (!ReadWholeFile(file, bytes)) return false;
  Parse(Decode(bytes, profile.encoding), profile);
  return true;
}

// The first section of that name; later sections of the same name are never looked at.
Section* FindSection(Profile& profile, const char16_t* name) {
  const WString wanted = Trim(name);
  for (Section& section : profile.sections)
    if (WEqualsNoCase(section.name, wanted)) return &section;
  return nullptr;
}

std::vector<Entry>::iterator FindEntry(Section& section, const char16_t* name) {
  const WString wanted = Trim(name);
  for (auto it = section.entries.begin(); it != section.entries.end(); ++it)
    if (WEqualsNoCase(it->name, wanted)) return it;
  return section.entries.end();
}

// The stored value of a key, if it has one.
bool LookUp(const WString& file, const char16_t* section, const char16_t* key, WString& value) {
  if (section == nullptr || key == nullptr) return false;
  Profile profile;
  if (!Load(file, profile)) return false;
  Section* s = FindSection(profile, section);
  if (s == nullptr) return false;
  auto it = FindEntry(*s, key);
  if (it == s->entries.end() || !it->hasValue) return false;
  value = it->value;
  return true;
}

bool IsQuoted(const WString& v) {
  return v.size() >= 2 && (v[0] == u'"' || v[0] == u'\'') && v.back() == v[0];
}

// Writes the bytes under a name of their own next to the file, then puts them in its place.
bool ReplaceFile(const WString& file, const std::string& bytes) {
  static std::atomic<uint32_t> counter{0};
  const WString temp =
      file + u".~" + WFromAscii(std::to_string(::getpid())) + u"." + WFromAscii(std::to_string(++counter));
  if (!WriteWholeFile(temp, bytes.data(), bytes.size())) {
    RemoveFilePath(temp);
    return false;
  }
  if (!RenamePath(temp, file)) {
    RemoveFilePath(temp);
    return false;
  }
  return true;
}

// Writers within the process take turns; the rename keeps readers from seeing a half file.
std::mutex& WriteLock() {
  static std::mutex lock;
  return lock;
}

}  // namespace

uint32_t ProfileReadText(const WString& file, const char16_t* section, const char16_t* key, const char16_t* def,
                         char16_t* buffer, uint32_t capacity) {
  if (capacity == 0 || buffer == nullptr) return 0;
  WString value;
  if (!LookUp(file, section, key, value)) {
    // A default loses its trailing spaces (tabs stay), as the system's call does.
    value = def != nullptr ? WString(def) : WString();
    while (!value.empty() && value.back() == u' ') value.pop_back();
  }
  size_t first = 0, length = value.size();
  size_t room = capacity - 1;
  size_t count = length < room ? length : room;
  if (IsQuoted(value)) {
    first = 1;
    length -= 2;
    // A quoted value that would fill the buffer exactly comes one character short: the system's
    // call counts the closing mark against the room.
    if (room < length)
      count = room;
    else if (room == length)
      count = length == 0 ? 0 : length - 1;
    else
      count = length;
  }
  value.copy(buffer, count, first);
  buffer[count] = 0;
  return static_cast<uint32_t>(count);
}

uint32_t ProfileReadInt(const WString& file, const char16_t* section, const char16_t* key, int32_t def) {
  WString value;
  if (!LookUp(file, section, key, value)) return static_cast<uint32_t>(def);
  if (IsQuoted(value)) value = value.substr(1, value.size() - 2);
  if (value.empty()) return static_cast<uint32_t>(def);
  size_t i = 0;
  bool negative = false;
  if (value[0] == u'-' || value[0] == u'+') {
    negative = value[0] == u'-';
    ++i;
  }
  uint32_t number = 0;
  if (i + 1 < value.size() && value[i] == u'0' && value[i + 1] == u'x') {
    for (i += 2; i < value.size(); ++i) {
      const char16_t c = value[i];
      uint32_t digit;
      if (c >= u'0' && c <= u'9')
        digit = c - u'0';
      else if (c >= u'a' && c <= u'f')
        digit = c - u'a' + 10;
      else if (c >= u'A' && c <= u'F')
        digit = c - u'A' + 10;
      else
        break;
      number = number * 16 + digit;
    }
  } else {
    for (; i < value.size() && value[i] >= u'0' && value[i] <= u'9'; ++i) number = number * 10 + (value[i] - u'0');
  }
  return negative ? 0u - number : number;
}

bool ProfileWrite(const WString& file, const char16_t* section, const char16_t* key, const char16_t* value) {
  if (section == nullptr || file.empty()) return false;
  if (!ProfileWriteStaysInItsLine(section, key, value)) return false;
  std::lock_guard<std::mutex> guard(WriteLock());
  Profile profile;
  if (!Load(file, profile)) {
    if (FileExists(file)) return false;  // there but unreadable: leave it alone
    profile.encoding = Encoding::Ansi;
    profile.sections.assign(1, Section{});
  }
  // A name the file's encoding cannot hold would be written as another name (a character outside
  // the 8-bit code page becomes "?"), which then reads as a key nobody wrote. A value may lose such
  // characters; a name may not.
  if (!Holds(profile.encoding, section) || !Holds(profile.encoding, key)) return false;
  Section* s = FindSection(profile, section);
  if (key == nullptr) {
    if (s == nullptr) return true;
    profile.sections.erase(profile.sections.begin() + (s - profile.sections.data()));
  } else if (value == nullptr) {
    if (s == nullptr) return true;
    auto it = FindEntry(*s, key);
    if (it == s->entries.end()) return true;
    s->entries.erase(it);
  } else {
    // New names and values lose their leading blanks only; the reader trims the rest.
    if (s == nullptr) {
      profile.sections.push_back(Section{TrimLeading(section), {}});
      s = &profile.sections.back();
    }
    auto it = FindEntry(*s, key);
    if (it == s->entries.end()) {
      s->entries.push_back(Entry{TrimLeading(key), true, TrimLeading(value)});
    } else {
      it->hasValue = true;
      it->value = TrimLeading(value);
    }
  }
  return ReplaceFile(file, Encode(Serialise(profile), profile.encoding));
}

bool IsOnReadOnlyMedium(const WString& path) {
  std::string p = WToUtf8(path);
  for (;;) {
    struct statvfs info {};
    if (!p.empty() && ::statvfs(p.c_str(), &info) == 0) return (info.f_flag & ST_RDONLY) != 0;
    // Not there yet: the directory that would hold it decides.
    const size_t slash = p.find_last_of('/');
    if (slash == std::string::npos) {
      p = ".";
      if (::statvfs(p.c_str(), &info) == 0) return (info.f_flag & ST_RDONLY) != 0;
      return false;
    }
    if (slash == 0) {
      if (p == "/") return false;
      p = "/";
    } else {
      p.resize(slash);
    }
  }
}

WString SystemDirectory() {
  return u"/tmp";
}

}  // namespace platform
