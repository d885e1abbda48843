// The POSIX ini reader and writer on any file, and the configuration space's texts on top of it.
//
// Input: the bytes of the ini file, optionally followed by "\n%%\n" and a UTF-8 trailer
// "section\x01key\x01value" naming one write (missing parts have defaults). For each input:
// - every entry the file seems to hold is read (text and number) before and after the write;
// - the write is refused with the file left byte for byte, or it succeeds, the value reads back
//   as the ini rules give it, and every other entry reads as before;
// - then the value is written once more as a text of the configuration space into the same file:
//   refused, or read back whole (line breaks as line feeds), and again nothing else changes.
// A broken rule aborts.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/WString.h"
#include "config/CConfigSpace.h"
#include "foundation/RequestMessage.h"
#include "platform/CodePage.h"
#include "platform/FileIo.h"
#include "platform/PrivateProfile.h"

namespace {

constexpr uint32_t kReadCapacity = 2048;
constexpr size_t kMostNames = 4;

const WString& FilePath() {
  static const WString path = platform::TempDirectory() + platform::kPathSeparator + u"em_ini_fuzz_" +
                              WFromAscii(std::to_string(::getpid())) + u".ini";
  return path;
}

bool Blank(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\v' || c == u'\f';
}

WString Trim(WStringView s) {
  size_t b = 0, e = s.size();
  while (b < e && Blank(s[b])) ++b;
  while (e > b && Blank(s[e - 1])) --e;
  return WString(s.substr(b, e - b));
}

WString Lower(WStringView s) {
  WString out(s);
  for (char16_t& c : out)
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
  return out;
}

// The text as the reader will see it, only to pick names worth asking for.
WString Decode(const std::string& bytes) {
  WString text;
  if (bytes.size() >= 2 && static_cast<uint8_t>(bytes[0]) == 0xFF && static_cast<uint8_t>(bytes[1]) == 0xFE) {
    for (size_t i = 2; i + 1 < bytes.size(); i += 2)
      text.push_back(static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8)));
  } else if (bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) {
    text = WFromUtf8(std::string_view(bytes).substr(3));
  } else {
    platform::CodePageToWide(platform::kCodePageAnsi, bytes.data(), bytes.size(), text);
  }
  return text;
}

// A name as the service's calls see it: up to its first terminator.
WString AsAsked(const WString& name) {
  return name.substr(0, name.find(u'\0'));
}

// Section names and key names the file seems to hold, plus the ones of the write.
void Names(const WString& text, std::vector<WString>& sections, std::vector<WString>& keys) {
  size_t pos = 0;
  while (pos < text.size() && (sections.size() < kMostNames || keys.size() < kMostNames)) {
    size_t end = text.find_first_of(u"\r\n", pos);
    if (end == WString::npos) end = text.size();
    const WString line = Trim(WStringView(text).substr(pos, end - pos));
    pos = end + 1;
    if (line.empty()) continue;
    const size_t close = line.rfind(u']');
    if (line[0] == u'[' && close != WString::npos) {
      if (sections.size() < kMostNames) sections.push_back(AsAsked(line.substr(1, close - 1)));
    } else if (keys.size() < kMostNames) {
      keys.push_back(AsAsked(line.substr(0, line.find(u'='))));
    }
  }
}

struct Seen {
  WString text;
  uint32_t number;
};
using Snapshot = std::map<std::pair<WString, WString>, Seen>;

Snapshot Read(const std::vector<WString>& sections, const std::vector<WString>& keys) {
  Snapshot seen;
  static char16_t buffer[kReadCapacity];
  for (const WString& section : sections) {
    for (const WString& key : keys) {
      const uint32_t n =
          platform::ProfileReadText(FilePath(), section.c_str(), key.c_str(), u"\x01", buffer, kReadCapacity);
      if (n >= kReadCapacity || buffer[n] != 0) std::abort();  // the copy always ends inside the buffer
      seen[{section, key}] = {WString(buffer, n),
                              platform::ProfileReadInt(FilePath(), section.c_str(), key.c_str(), -7)};
    }
  }
  return seen;
}

// Every entry but the written one reads as before.
void CheckOthers(const Snapshot& before, const Snapshot& after, const WString& section, const WString& key) {
  for (const auto& [where, was] : before) {
    const bool written =
        Lower(Trim(where.first)) == Lower(Trim(section)) && Lower(Trim(where.second)) == Lower(Trim(key));
    if (written) continue;
    const Seen& now = after.at(where);
    if (now.text != was.text || now.number != was.number) {
      std::fprintf(stderr, "[%s] %s was \"%s\" (%u), now \"%s\" (%u)\n", WToUtf8(where.first).c_str(),
                   WToUtf8(where.second).c_str(), WToUtf8(was.text).c_str(), was.number, WToUtf8(now.text).c_str(),
                   now.number);
      std::abort();
    }
  }
}

std::string Bytes() {
  std::string bytes;
  platform::ReadWholeFile(FilePath(), bytes);
  return bytes;
}

void Put(const std::string& bytes) {
  if (!platform::WriteWholeFile(FilePath(), bytes.data(), bytes.size())) std::abort();
}

// What the reader gives for a value the writer took: blanks around it and one pair of enclosing
// quotation marks go; an 8-bit file holds only what its code page has, a UTF-8 file only whole
// characters.
WString InFile(const WString& v, const std::string& fileBefore) {
  const bool utf16 = fileBefore.empty() || fileBefore.compare(0, 2, "\xFF\xFE") == 0;
  if (utf16) return v;
  if (fileBefore.compare(0, 3, "\xEF\xBB\xBF") == 0) return WFromUtf8(WToUtf8(v));
  std::string ansi;
  platform::WideToCodePage(platform::kCodePageAnsi, v, ansi);
  WString back;
  platform::CodePageToWide(platform::kCodePageAnsi, ansi.data(), ansi.size(), back);
  return back;
}

WString AsRead(const WString& value, const std::string& fileBefore) {
  WString v = Trim(value);
  if (v.size() >= 2 && (v[0] == u'"' || v[0] == u'\'') && v.back() == v[0]) v = v.substr(1, v.size() - 2);
  return InFile(v, fileBefore);
}

void ConfigSpaceRoundTrip(const WString& text, const std::vector<WString>& sections, const std::vector<WString>& keys) {
  CConfigSpace space;
  space.SetOwnCabinet(1);
  space.CommonFile().SetFileName(FilePath().c_str());
  if (space.CommonFile().OpenExisting(0) == 0 && platform::FileExists(FilePath())) std::abort();
  const std::string fileBefore = Bytes();
  std::vector<WString> allKeys = keys;
  allKeys.push_back(u"041B.FFFF.0000");
  allKeys.push_back(u"041B.FFFF.0000.Size");
  std::vector<WString> allSections = sections;
  allSections.push_back(u"CurrentConfig");
  const Snapshot before = Read(allSections, allKeys);

  RequestMessage m;
  ConstructRequest(m, 0xE002, 0x041B, 0, 1, ST_NONE);
  SetDataString(m, GetCurrentCommand(m), text);
  bool refused = false;
  const int written = space.WriteText(m, nullptr, &refused);
  const Snapshot after = Read(allSections, allKeys);
  if (refused) {
    if (written != 0 || GetCommandValue(m, 0, kKeyST, 0) != ST_FAILED || Bytes() != fileBefore) std::abort();
    return;
  }
  // The two keys of the text are its own; everything else stays.
  for (const auto& [where, was] : before) {
    if (Lower(Trim(where.first)) == u"currentconfig" && Lower(Trim(where.second)).rfind(u"041b.ffff.0000", 0) == 0)
      continue;
    const Seen& now = after.at(where);
    if (now.text != was.text || now.number != was.number) std::abort();
  }
  if (written == 0) return;  // the file could not be written (an 8-bit file cannot hold every text)
  ConstructRequest(m, 0xE001, 0x041B, 0, 1, ST_NONE);
  if (space.ReadTextValue(m, 0, nullptr) != 1) std::abort();
  WString back;
  GetDataString(m, 0, back, 0);
  // Line breaks come back as line feeds, "||" of the text too; an 8-bit file keeps what it can.
  WString expected;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == u'\r' || text[i] == u'\n') {
      expected += u'\n';
      if (text[i] == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n') ++i;
    } else if (text[i] == u'|' && i + 1 < text.size() && text[i + 1] == u'|') {
      expected += u'\n';
      ++i;
    } else {
      expected += text[i];
    }
  }
  if (back != InFile(expected, fileBefore)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t mark = input.find("\n%%\n");
  const std::string file = input.substr(0, mark);
  WString section = u"S", key = u"fuzz", value = u"v";
  if (mark != std::string::npos) {
    const WString trailer = WFromUtf8(std::string_view(input).substr(mark + 4));
    const size_t a = trailer.find(u'\x01');
    section = trailer.substr(0, a);
    if (a != WString::npos) {
      const size_t b = trailer.find(u'\x01', a + 1);
      key = trailer.substr(a + 1, b == WString::npos ? WString::npos : b - a - 1);
      value = b == WString::npos ? WString() : trailer.substr(b + 1);
    }
  }
  // A terminator ends each name and the value as the ini writer sees them; the configuration
  // space gets the whole text.
  const WString text = value;
  for (WString* s : {&section, &key, &value}) {
    const size_t nul = s->find(u'\0');
    if (nul != WString::npos) s->resize(nul);
  }

  Put(file);
  std::vector<WString> sections{u"", section}, keys{key};
  Names(Decode(file), sections, keys);
  const Snapshot before = Read(sections, keys);

  if (!platform::ProfileWrite(FilePath(), section.c_str(), key.c_str(), value.c_str())) {
    if (Bytes() != file) std::abort();  // refused: the file is left as it was
  } else {
    const Snapshot after = Read(sections, keys);
    CheckOthers(before, after, section, key);
    std::vector<char16_t> buffer(value.size() + 16);
    const uint32_t n = platform::ProfileReadText(FilePath(), section.c_str(), key.c_str(), u"\x01", buffer.data(),
                                                 static_cast<uint32_t>(buffer.size()));
    if (WString(buffer.data(), n) != AsRead(value, file)) std::abort();
    // The same write again finds the entry and changes no reading; once the file is in the form the
    // writer gives it (new names keep their trailing blanks only until then), it stays in it.
    if (!platform::ProfileWrite(FilePath(), section.c_str(), key.c_str(), value.c_str())) std::abort();
    const std::string twice = Bytes();
    CheckOthers(before, Read(sections, keys), section, key);
    if (!platform::ProfileWrite(FilePath(), section.c_str(), key.c_str(), value.c_str()) || Bytes() != twice)
      std::abort();
  }

  ConfigSpaceRoundTrip(text, sections, keys);
  platform::RemoveFilePath(FilePath());
  return 0;
}
