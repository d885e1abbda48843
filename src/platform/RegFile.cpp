#include "platform/RegFile.h"

#include <cstdlib>

namespace platform {

namespace {

// Decodes the file's bytes to wide text: a UTF-16LE mark selects UTF-16, anything else is UTF-8.
WString DecodeRegText(const std::string& bytes, bool& utf16) {
  if (bytes.size() >= 2 && static_cast<uint8_t>(bytes[0]) == 0xFF && static_cast<uint8_t>(bytes[1]) == 0xFE) {
    utf16 = true;
    WString out;
    out.reserve(bytes.size() / 2);
    for (size_t i = 2; i + 1 < bytes.size(); i += 2)
      out.push_back(static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) | (static_cast<uint8_t>(bytes[i + 1]) << 8)));
    return out;
  }
  utf16 = false;
  size_t skip = (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) ? 3 : 0;
  return WFromUtf8(std::string_view(bytes).substr(skip));
}

WString Trim(WStringView s) {
  size_t b = 0, e = s.size();
  while (b < e && (s[b] == u' ' || s[b] == u'\t' || s[b] == u'\r')) ++b;
  while (e > b && (s[e - 1] == u' ' || s[e - 1] == u'\t' || s[e - 1] == u'\r')) --e;
  return WString(s.substr(b, e - b));
}

// Reads a quoted text at s[pos] == '"', with \\ and \" escapes; pos ends behind the closing quote.
bool ReadQuoted(WStringView s, size_t& pos, WString& out) {
  if (pos >= s.size() || s[pos] != u'"') return false;
  ++pos;
  out.clear();
  while (pos < s.size()) {
    char16_t c = s[pos++];
    if (c == u'\\' && pos < s.size()) {
      out.push_back(s[pos++]);
    } else if (c == u'"') {
      return true;
    } else {
      out.push_back(c);
    }
  }
  return false;
}

int HexDigit(char16_t c) {
  return (c >= u'0' && c <= u'9')   ? c - u'0'
         : (c >= u'a' && c <= u'f') ? c - u'a' + 10
         : (c >= u'A' && c <= u'F') ? c - u'A' + 10
                                    : -1;
}

bool ParseHexBytes(WStringView s, std::vector<uint8_t>& out) {
  out.clear();
  size_t i = 0;
  while (i < s.size()) {
    while (i < s.size() && (s[i] == u' ' || s[i] == u',' || s[i] == u'\t')) ++i;
    if (i >= s.size()) break;
    int v = 0, digits = 0;
    while (i < s.size() && digits < 2) {
      const int d = HexDigit(s[i]);
      if (d < 0) break;
      v = v * 16 + d;
      ++digits;
      ++i;
    }
    if (digits == 0) return false;
    out.push_back(static_cast<uint8_t>(v));
  }
  return true;
}

bool ParseValueData(WStringView text, RegFileValue& v) {
  if (!text.empty() && text[0] == u'"') {
    size_t pos = 0;
    WString s;
    if (!ReadQuoted(text, pos, s)) return false;
    v.type = RegType::String;
    v.data = RegStringData(s);
    return true;
  }
  if (text.size() >= 6 && WEqualsNoCase(text.substr(0, 6), u"dword:")) {
    std::string hex = WToUtf8(text.substr(6));
    char* end = nullptr;
    unsigned long n = std::strtoul(hex.c_str(), &end, 16);
    if (end == hex.c_str()) return false;
    uint32_t d = static_cast<uint32_t>(n);
    v.type = RegType::Dword;
    v.data = {static_cast<uint8_t>(d), static_cast<uint8_t>(d >> 8), static_cast<uint8_t>(d >> 16),
              static_cast<uint8_t>(d >> 24)};
    return true;
  }
  if (text.size() >= 4 && WEqualsNoCase(text.substr(0, 4), u"hex:")) {
    v.type = RegType::Binary;
    return ParseHexBytes(text.substr(4), v.data);
  }
  if (text.size() >= 4 && WEqualsNoCase(text.substr(0, 4), u"hex(")) {
    size_t close = text.find(u")");
    if (close == WStringView::npos || close + 1 >= text.size() || text[close + 1] != u':') return false;
    // The type is a 32-bit number in 1 to 8 hex digits; anything else leaves the line unread.
    const WStringView code = text.substr(4, close - 4);
    if (code.empty() || code.size() > 8) return false;
    uint32_t type = 0;
    for (char16_t c : code) {
      const int d = HexDigit(c);
      if (d < 0) return false;
      type = type << 4 | static_cast<uint32_t>(d);
    }
    v.type = static_cast<RegType>(type);
    return ParseHexBytes(text.substr(close + 2), v.data);
  }
  return false;
}

}  // namespace

std::vector<uint8_t> RegStringData(WStringView text) {
  std::vector<uint8_t> data;
  data.reserve(text.size() * 2 + 2);
  for (char16_t c : text) {
    data.push_back(static_cast<uint8_t>(c));
    data.push_back(static_cast<uint8_t>(c >> 8));
  }
  data.push_back(0);
  data.push_back(0);
  return data;
}

WString RegDataString(const std::vector<uint8_t>& data) {
  WString s;
  for (size_t i = 0; i + 1 < data.size(); i += 2) {
    char16_t c = static_cast<char16_t>(data[i] | (data[i + 1] << 8));
    if (c == 0) break;
    s.push_back(c);
  }
  return s;
}

bool RegLocalMachineSubPath(WStringView full, WString& sub) {
  static const char16_t* prefixes[] = {u"HKEY_LOCAL_MACHINE", u"HKLM"};
  for (const char16_t* p : prefixes) {
    WStringView pv(p);
    if (full.size() >= pv.size() && WEqualsNoCase(full.substr(0, pv.size()), pv)) {
      if (full.size() == pv.size()) {
        sub.clear();
        return true;
      }
      if (full[pv.size()] == u'\\') {
        sub = WString(full.substr(pv.size() + 1));
        while (!sub.empty() && sub.back() == u'\\') sub.pop_back();
        return true;
      }
    }
  }
  return false;
}

void RegFileKey::SetValue(const RegFileValue& value) {
  for (auto& old : values)
    if (WEqualsNoCase(old.name, value.name)) {
      old = value;
      return;
    }
  values.push_back(value);
}

RegFileKey* RegFile::FindLocalMachineKey(WStringView path) {
  WString want(path);
  while (!want.empty() && want.back() == u'\\') want.pop_back();
  for (auto& k : keys) {
    WString sub;
    if (RegLocalMachineSubPath(k.path, sub) && WEqualsNoCase(sub, want)) return &k;
  }
  return nullptr;
}

RegFileKey& RegFile::AddLocalMachineKey(WStringView path) {
  if (RegFileKey* k = FindLocalMachineKey(path)) return *k;
  keys.push_back(RegFileKey{u"HKEY_LOCAL_MACHINE\\" + WString(path), {}});
  return keys.back();
}

bool ParseRegFile(const std::string& bytes, RegFile& file) {
  bool utf16 = false;
  WString text = DecodeRegText(bytes, utf16);
  file.utf16 = utf16;
  file.keys.clear();

  // Split into logical lines: a trailing backslash continues a hex list on the next line.
  std::vector<WString> lines;
  WString pending;
  size_t start = 0;
  while (start <= text.size()) {
    size_t nl = text.find(u'\n', start);
    WString line = Trim(WStringView(text).substr(start, nl == WString::npos ? WString::npos : nl - start));
    start = nl == WString::npos ? text.size() + 1 : nl + 1;
    if (!pending.empty()) {
      pending += line;
    } else {
      pending = line;
    }
    if (!pending.empty() && pending.back() == u'\\' && pending.find(u'=') != WString::npos &&
        pending.find(u"hex") != WString::npos) {
      pending.pop_back();
      continue;
    }
    lines.push_back(pending);
    pending.clear();
  }
  if (!pending.empty()) lines.push_back(pending);

  size_t first = 0;
  while (first < lines.size() && lines[first].empty()) ++first;
  if (first >= lines.size()) return false;
  const WString& header = lines[first];
  if (header != u"Windows Registry Editor Version 5.00" && header != u"REGEDIT4" && header != u"REGEDIT5") return false;

  RegFileKey* current = nullptr;
  bool deletedKey = false;
  for (size_t i = first + 1; i < lines.size(); ++i) {
    const WString& line = lines[i];
    if (line.empty() || line[0] == u';') continue;
    if (line[0] == u'[') {
      size_t close = line.rfind(u']');
      if (close == WString::npos) {
        current = nullptr;
        continue;
      }
      WString path = line.substr(1, close - 1);
      deletedKey = !path.empty() && path[0] == u'-';
      if (deletedKey) {
        current = nullptr;
        continue;
      }
      while (!path.empty() && path.back() == u'\\') path.pop_back();
      current = nullptr;
      for (auto& k : file.keys)
        if (WEqualsNoCase(k.path, path)) current = &k;
      if (!current) {
        file.keys.push_back(RegFileKey{path, {}});
        current = &file.keys.back();
      }
      continue;
    }
    if (!current) continue;
    RegFileValue v;
    size_t pos = 0;
    if (line[0] == u'@') {
      pos = 1;
    } else if (!ReadQuoted(line, pos, v.name)) {
      continue;
    }
    while (pos < line.size() && (line[pos] == u' ' || line[pos] == u'\t')) ++pos;
    if (pos >= line.size() || line[pos] != u'=') continue;
    ++pos;
    while (pos < line.size() && (line[pos] == u' ' || line[pos] == u'\t')) ++pos;
    WStringView data = WStringView(line).substr(pos);
    // "name"=- removes a value.
    if (data == u"-") {
      for (size_t j = 0; j < current->values.size(); ++j)
        if (WEqualsNoCase(current->values[j].name, v.name)) current->values.erase(current->values.begin() + j);
      continue;
    }
    if (!ParseValueData(data, v)) continue;
    current->SetValue(v);
  }
  return true;
}

namespace {

WString EscapeQuoted(WStringView s) {
  WString out;
  for (char16_t c : s) {
    if (c == u'\\' || c == u'"') out.push_back(u'\\');
    out.push_back(c);
  }
  return out;
}

WString HexList(const std::vector<uint8_t>& data) {
  WString out;
  static const char16_t* digits = u"0123456789abcdef";
  for (size_t i = 0; i < data.size(); ++i) {
    if (i) out.push_back(u',');
    out.push_back(digits[data[i] >> 4]);
    out.push_back(digits[data[i] & 15]);
  }
  return out;
}

bool HasLoneSurrogate(WStringView text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF)
      ++i;
    else if (c >= 0xD800 && c <= 0xDFFF)
      return true;
  }
  return false;
}

enum class Form { Text, Dword, Binary, HexOfType };

// A value is written as a quoted text or a dword only when reading that form back gives the same
// bytes; any other keeps its bytes as a hex list of its type, as the registry editor writes them.
// So a text that is cut off, holds a terminator or a line feed, or (in a UTF-8 file) a surrogate
// that UTF-8 cannot carry, is written as hex(1).
Form WrittenForm(const RegFileValue& v, bool utf16) {
  switch (v.type) {
    case RegType::String: {
      const WString text = RegDataString(v.data);
      if (RegStringData(text) != v.data || text.find(u'\n') != WString::npos || (!utf16 && HasLoneSurrogate(text)))
        return Form::HexOfType;
      return Form::Text;
    }
    case RegType::Dword:
      return v.data.size() == 4 ? Form::Dword : Form::HexOfType;
    case RegType::Binary:
      return Form::Binary;
    default:
      return Form::HexOfType;
  }
}

}  // namespace

std::string SerializeRegFile(const RegFile& file) {
  WString text = u"Windows Registry Editor Version 5.00\r\n";
  for (const auto& k : file.keys) {
    text += u"\r\n[" + k.path + u"]\r\n";
    for (const auto& v : k.values) {
      text += v.name.empty() ? WString(u"@") : u"\"" + EscapeQuoted(v.name) + u"\"";
      text += u"=";
      switch (WrittenForm(v, file.utf16)) {
        case Form::Text:
          text += u"\"" + EscapeQuoted(RegDataString(v.data)) + u"\"";
          break;
        case Form::Dword: {
          uint32_t d = 0;
          for (size_t i = 0; i < 4 && i < v.data.size(); ++i) d |= static_cast<uint32_t>(v.data[i]) << (8 * i);
          char buf[16];
          static const char* hx = "0123456789abcdef";
          for (int i = 0; i < 8; ++i) buf[i] = hx[(d >> (28 - 4 * i)) & 15];
          buf[8] = 0;
          text += u"dword:" + WFromAscii(buf);
          break;
        }
        case Form::Binary:
          text += u"hex:" + HexList(v.data);
          break;
        case Form::HexOfType: {
          // All the type's digits, without leading zeros: hex(2), hex(7), hex(100).
          static const char16_t* hx = u"0123456789abcdef";
          const uint32_t type = static_cast<uint32_t>(v.type);
          WString code;
          for (int shift = 28; shift >= 0; shift -= 4)
            if (type >> shift || shift == 0) code.push_back(hx[(type >> shift) & 15]);
          text += u"hex(" + code + u"):" + HexList(v.data);
          break;
        }
      }
      text += u"\r\n";
    }
  }
  text += u"\r\n";
  std::string out;
  if (file.utf16) {
    out.reserve(text.size() * 2 + 2);
    out.push_back(static_cast<char>(0xFF));
    out.push_back(static_cast<char>(0xFE));
    for (char16_t c : text) {
      out.push_back(static_cast<char>(c & 0xFF));
      out.push_back(static_cast<char>(c >> 8));
    }
  } else {
    out = WToUtf8(text);
  }
  return out;
}

}  // namespace platform
