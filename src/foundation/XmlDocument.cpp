#include "foundation/XmlDocument.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <unordered_map>

#include "foundation/CDebug.h"
#include "foundation/XmlEncoding.h"
#include "foundation/XmlNames.h"
#include "platform/CodePage.h"

namespace {

constexpr size_t kResultLimit = 1000;  // the result record takes no more items beyond this
constexpr size_t kProbeBytes = 1024;   // bytes looked at for a mark or a declared encoding
constexpr int kCodePageUtf16Le = 1200;
constexpr int kCodePageUtf16Be = 1201;
constexpr int kCodePageUtf8 = 65001;
constexpr int kCodePageUtf7 = 65000;
constexpr int kCodePageUtf32 = 65005;

inline bool IsSpace(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n';
}

inline bool IsNameStart(char16_t c) {
  return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') || c == u'_' || c == u':' || c >= 0x80;
}

// A tag name runs up to white space, "/", ">", "<" or a quote. A quote cannot be part of it: the
// end tag "</name>" that an edit writes for the name would open a quoted part and hide its ">".
inline bool EndsName(char16_t c) {
  return IsSpace(c) || c == u'/' || c == u'>' || c == u'<' || c == u'"' || c == u'\'';
}

inline bool StartsWith(WStringView text, size_t at, WStringView prefix) {
  return text.size() >= at + prefix.size() && text.compare(at, prefix.size(), prefix) == 0;
}

bool StartsWithNoCase(WStringView text, size_t at, WStringView prefix) {
  if (text.size() < at + prefix.size()) return false;
  return WEqualsNoCase(text.substr(at, prefix.size()), prefix);
}

size_t FindNoCase(WStringView text, WStringView what, size_t from) {
  for (size_t i = from; i + what.size() <= text.size(); ++i) {
    if (StartsWithNoCase(text, i, what)) return i;
  }
  return WStringView::npos;
}

WString Number(long long value) {
  return WFromAscii(std::to_string(value));
}

// Finds an attribute in the text of a start tag ("<name a='1' b=2>"); values may be quoted or not.
bool FindAttribute(WStringView tag, WStringView name, bool ignoreCase, WString& value) {
  size_t i = 1;
  while (i < tag.size() && !EndsName(tag[i])) ++i;  // the tag name
  while (i < tag.size()) {
    while (i < tag.size() && (IsSpace(tag[i]) || tag[i] == u'/')) ++i;
    if (i >= tag.size() || tag[i] == u'>' || tag[i] == u'?') return false;
    size_t nameStart = i;
    while (i < tag.size() && !IsSpace(tag[i]) && tag[i] != u'=' && tag[i] != u'>' && tag[i] != u'/') ++i;
    WStringView attr = tag.substr(nameStart, i - nameStart);
    while (i < tag.size() && IsSpace(tag[i])) ++i;
    WStringView found;
    if (i < tag.size() && tag[i] == u'=') {
      ++i;
      while (i < tag.size() && IsSpace(tag[i])) ++i;
      if (i < tag.size() && (tag[i] == u'"' || tag[i] == u'\'')) {
        char16_t quote = tag[i++];
        size_t end = tag.find(quote, i);
        if (end == WStringView::npos) end = tag.size();
        found = tag.substr(i, end - i);
        i = end + 1;
      } else {
        size_t valueStart = i;
        while (i < tag.size() && !IsSpace(tag[i]) && tag[i] != u'>') ++i;
        found = tag.substr(valueStart, i - valueStart);
      }
    }
    if (attr.empty()) {
      ++i;  // a stray character; step over it
      continue;
    }
    if (ignoreCase ? WEqualsNoCase(attr, name) : attr == name) {
      value.assign(found);
      return true;
    }
  }
  return false;
}

// The encoding that a document declares in its first bytes: the "encoding" of a leading <?xml
// instruction, or for an html document the charset of its Content-Type meta element in head.
bool DeclaredEncoding(WStringView text, WString& name) {
  size_t i = 0;
  while (i < text.size() && IsSpace(text[i])) ++i;
  if (StartsWith(text, i, u"<?xml") && i + 5 < text.size() && IsSpace(text[i + 5])) {
    size_t end = text.find(u"?>", i);
    if (end != WStringView::npos && FindAttribute(text.substr(i, end - i), u"encoding", false, name)) return true;
  }
  size_t html = FindNoCase(text, u"<html", 0);
  if (html == WStringView::npos) return false;
  size_t head = FindNoCase(text, u"<head", html);
  if (head == WStringView::npos) return false;
  size_t meta = head;
  while ((meta = FindNoCase(text, u"<meta", meta + 1)) != WStringView::npos) {
    size_t end = text.find(u'>', meta);
    if (end == WStringView::npos) return false;
    WStringView tag = text.substr(meta, end + 1 - meta);
    WString equiv, content;
    if (FindAttribute(tag, u"http-equiv", true, equiv) && WEqualsNoCase(equiv, u"content-type") &&
        FindAttribute(tag, u"content", true, content)) {
      size_t at = FindNoCase(content, u"charset=", 0);
      if (at != WString::npos) {
        size_t from = at + 8;
        size_t to = from;
        while (to < content.size() && content[to] != u';' && !IsSpace(content[to])) ++to;
        name = content.substr(from, to - from);
        return true;
      }
    }
  }
  return false;
}

bool ReadWholeFile(const WString& path, std::string& bytes, int& error) {
  errno = 0;
  std::ifstream in(std::filesystem::path(path), std::ios::binary);
  if (!in) {
    error = errno != 0 ? errno : ENOENT;
    return false;
  }
  in.seekg(0, std::ios::end);
  std::streamoff size = in.tellg();
  if (size < 0) {
    error = errno != 0 ? errno : EIO;
    return false;
  }
  in.seekg(0, std::ios::beg);
  bytes.resize(static_cast<size_t>(size));
  if (size > 0 && !in.read(bytes.data(), size)) {
    error = errno != 0 ? errno : EIO;
    return false;
  }
  return true;
}

bool WriteWholeFile(const WString& path, const std::string& mark, const std::string& bytes, int& error) {
  errno = 0;
  std::ofstream out(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
  if (!out) {
    error = errno != 0 ? errno : EACCES;
    return false;
  }
  out.write(mark.data(), static_cast<std::streamsize>(mark.size()));
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) {
    error = errno != 0 ? errno : EIO;
    return false;
  }
  return true;
}

// Whether a document may be read and written in the code page that it declares. The declaration
// is found by reading the first bytes as ASCII, so the code page must read and write the
// characters of a declaration (and of an html head) as the same ASCII bytes; otherwise a file
// saved in it no longer shows its declaration and reads back as other text. EBCDIC pages fail
// this, and so does ISO-2022-KR, whose writer puts its designation in front. UTF-7 passes because
// the class writes it with its own loop.
bool CodePageKeepsDeclaration(int codePage) {
  if (codePage == kCodePageUtf8) return true;
  if (codePage < 0 || !platform::CodePageSupported(static_cast<uint32_t>(codePage))) return false;
  static const char kMarkup[] =
      "<?xml version=\"1.0\" encoding='x'?>\r\n\t<html><head><meta http-equiv content=\"a/b; charset=c\"/>"
      "ABCDEFGHIJKLMNOPQRSTUVWXYZ abcdefghijklmnopqrstuvwxyz 0123456789 -_.:()";
  const std::string ascii(kMarkup);
  WString wide;
  if (!platform::CodePageToWide(static_cast<uint32_t>(codePage), ascii.data(), ascii.size(), wide) ||
      wide != WFromAscii(ascii)) {
    return false;
  }
  if (codePage == kCodePageUtf7) return true;
  std::string bytes;
  bool lossy = false;
  return platform::WideToCodePage(static_cast<uint32_t>(codePage), wide, bytes, &lossy) && !lossy && bytes == ascii;
}

// The reference at text[at] ("&...;") when it is well formed, its length (with "&" and ";").
size_t WellFormedReference(WStringView text, size_t at) {
  size_t i = at + 1;
  if (i < text.size() && text[i] == u'#') {
    ++i;
    bool hex = i < text.size() && text[i] == u'x';
    if (hex) ++i;
    size_t digits = i;
    while (i < text.size() && ((text[i] >= u'0' && text[i] <= u'9') ||
                               (hex && ((text[i] >= u'a' && text[i] <= u'f') || (text[i] >= u'A' && text[i] <= u'F')))))
      ++i;
    if (i == digits) return 0;
  } else {
    if (i >= text.size() || !IsNameStart(text[i])) return 0;
    while (i < text.size() && !EndsName(text[i]) && text[i] != u';' && text[i] != u'&' && text[i] != u'"' &&
           text[i] != u'\'')
      ++i;
  }
  return (i < text.size() && text[i] == u';') ? i + 1 - at : 0;
}

void AppendCodePoint(WString& out, uint32_t value) {
  if (value >= 0x10000) {
    value -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (value >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
  } else {
    out.push_back(static_cast<char16_t>(value));
  }
}

// Code point of the reference whose text (between "&" and ";") is given, or -1.
long ReferenceValue(WStringView ref) {
  if (ref.empty()) return -1;
  long value = 0;
  if (ref[0] == u'#') {
    bool hex = ref.size() > 1 && (ref[1] == u'x' || ref[1] == u'X');
    size_t i = hex ? 2 : 1;
    if (i >= ref.size()) return -1;
    for (; i < ref.size(); ++i) {
      char16_t c = ref[i];
      int digit;
      if (c >= u'0' && c <= u'9') {
        digit = c - u'0';
      } else if (hex && c >= u'a' && c <= u'f') {
        digit = c - u'a' + 10;
      } else if (hex && c >= u'A' && c <= u'F') {
        digit = c - u'A' + 10;
      } else {
        return -1;
      }
      value = value * (hex ? 16 : 10) + digit;
    }
    if (value == 0 || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return -1;
    return value;
  }
  return XmlEntityCodePoint(ref);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// element array

XmlDocument::XmlDocument() {
  resetElements();
}

XmlDocument::~XmlDocument() = default;

void XmlDocument::resetElements() {
  if (m_segments.empty()) {
    m_segments.emplace_back(new ElemPos[kFirstSegmentStart]);
    m_nFirstCapacity = kFirstSegmentStart;
  }
  m_segments.resize(1);
  m_nElemCount = 1;
  // Entry 0 stands for the document: its children are the top-level elements.
  el(0) = ElemPos{0, static_cast<int32_t>(m_strDoc.size()), 0, 0, 0, 0, 0, 0};
}

void XmlDocument::resetPositions() {
  m_iPos = 0;
  m_iPosParent = 0;
  m_iPosChild = 0;
  m_nNodeEnd = -1;
}

int XmlDocument::newElement() {
  int index = m_nElemCount++;
  if (index < kSegmentSize) {
    if (index >= m_nFirstCapacity) {
      // Moves the first segment: no reference to an entry may be held across this call.
      const int capacity = std::min(kSegmentSize, m_nFirstCapacity * 2);
      std::unique_ptr<ElemPos[]> grown(new ElemPos[static_cast<size_t>(capacity)]);
      std::copy(m_segments[0].get(), m_segments[0].get() + index, grown.get());
      m_segments[0] = std::move(grown);
      m_nFirstCapacity = capacity;
    }
  } else if ((static_cast<size_t>(index) >> kSegmentBits) >= m_segments.size()) {
    m_segments.emplace_back(new ElemPos[kSegmentSize]);
  }
  el(index) = ElemPos{0, 0, 0, 0, 0, 0, 0, 0};
  return index;
}

WStringView XmlDocument::tagName(int i) const {
  const ElemPos& e = el(i);
  size_t from = static_cast<size_t>(e.start) + 1;
  size_t to = from;
  size_t end = static_cast<size_t>(e.start + e.startTagLen);
  while (to < end && !EndsName(m_strDoc[to])) ++to;
  return WStringView(m_strDoc).substr(from, to - from);
}

bool XmlDocument::nameMatches(int i, const char16_t* name) const {
  const ElemPos& e = el(i);
  const char16_t* p = m_strDoc.data() + e.start + 1;
  const char16_t* end = m_strDoc.data() + e.start + e.startTagLen;
  while (*name != 0) {
    if (p >= end || *p != *name) return false;
    ++p;
    ++name;
  }
  return p >= end || EndsName(*p);
}

// ---------------------------------------------------------------------------------------------
// result record

void XmlDocument::noteItem(const char16_t* item, std::initializer_list<std::pair<const char16_t*, WString>> attrs) {
  if (m_strResult.size() >= kResultLimit) return;
  m_strResult += u'<';
  m_strResult += item;
  for (const auto& attr : attrs) {
    m_strResult += u' ';
    m_strResult += attr.first;
    m_strResult += u"=\"";
    m_strResult += escapeText(attr.second, XML_EL_ESCAPE_QUOTES);
    m_strResult += u'"';
  }
  m_strResult += u"/>";
}

void XmlDocument::noteSyntax(const char16_t* item, int offset) {
  m_bWellFormed = false;
  noteItem(item, {{u"offset", Number(offset)}});
}

void XmlDocument::noteFileError(int error) {
  std::string message = std::generic_category().message(error);
  noteItem(u"file_error", {{u"msg", WFromUtf8(message)}, {u"n", Number(error)}});
}

// ---------------------------------------------------------------------------------------------
// parsing

// End of the tag that begins at `from` ("<" at from): the offset of its ">", with quotes hiding
// ">". A "<" outside the quoted parts, or inside a quoted part, ends the tag unterminated: the
// offset of that "<" comes back with hitLessThan set. -1 when the text ends inside the tag.
int XmlDocument::scanTagEnd(int from, bool& hitLessThan) const {
  hitLessThan = false;
  const char16_t* p = m_strDoc.data();
  const int n = static_cast<int>(m_strDoc.size());
  for (int j = from + 1; j < n; ++j) {
    char16_t c = p[j];
    if (c == u'>') return j;
    if (c == u'<') {
      hitLessThan = true;
      return j;
    }
    if (c == u'"' || c == u'\'') {
      for (++j; j < n && p[j] != c; ++j) {
        if (p[j] == u'<') {
          hitLessThan = true;
          return j;
        }
      }
      if (j >= n) return -1;
    }
  }
  return -1;
}

// Closes the open elements above stack[keep-1] (or all when keep is 0) as elements without end
// tag: their children pass to `parent`, the element stack[keep-1] (0 for the document).
void XmlDocument::closeUnended(std::vector<int>& stack, size_t keep, int parent, int endOffset) {
  for (size_t s = keep; s < stack.size(); ++s) {
    int u = stack[s];
    ElemPos& e = el(u);
    if (m_strResult.size() < kResultLimit) {
      noteItem(u"unended_start_tag",
               {{u"tagname", WString(tagName(u))}, {u"offset", Number(e.start)}, {u"offset2", Number(endOffset)}});
    }
    m_bWellFormed = false;
    for (int c = e.child; c != 0; c = el(c).next) el(c).parent = parent;
    e.next = e.child;
    e.child = 0;
    e.lastChild = 0;
    e.length = e.startTagLen;
    e.endTagLen = 0;
  }
  // The last of the flattened chain: the innermost element closed, or its last child.
  int innermost = stack.back();
  ElemPos& p = el(parent);
  int last = innermost;
  while (el(last).next != 0) last = el(last).next;
  p.lastChild = last;
  stack.resize(keep);
}

void XmlDocument::parse() {
  resetElements();
  resetPositions();
  m_bWellFormed = true;
  m_nEndTagMatchWork = 0;
  const char16_t* p = m_strDoc.data();
  const int n = static_cast<int>(m_strDoc.size());
  std::vector<int> stack;  // open elements
  stack.reserve(64);
  // End tags close the innermost open element of their name. The top of the stack is tried first,
  // which is all a sound document needs. The first time it does not match, an index of the open
  // elements by name (their places in the stack, innermost last) is built and from then on kept up
  // to date, so that end tags that match nothing, or match far down, do not look at every open
  // element again: a long run of them would otherwise cost the square of the depth.
  std::unordered_map<WStringView, std::vector<size_t>> openByName;
  bool indexed = false;
  auto push = [&](int index) {
    stack.push_back(index);
    if (indexed) openByName[tagName(index)].push_back(stack.size() - 1);
  };
  // Drops stack[keep..] from the index; the caller then drops them from the stack.
  auto unindex = [&](size_t keep) {
    if (!indexed) return;
    for (size_t s = stack.size(); s-- > keep;) openByName[tagName(stack[s])].pop_back();
  };

  auto link = [&](int index) {
    int parent = stack.empty() ? 0 : stack.back();
    ElemPos& e = el(index);
    e.parent = parent;
    ElemPos& pe = el(parent);
    if (pe.lastChild != 0) {
      el(pe.lastChild).next = index;
    } else {
      pe.child = index;
    }
    pe.lastChild = index;
  };
  auto unterminated = [&](const char16_t* kind, int offset) {
    m_bWellFormed = false;
    noteItem(u"unterminated_tag_syntax", {{u"type", WString(kind)}, {u"offset", Number(offset)}});
  };
  auto findText = [&](int from, WStringView what) -> int {
    size_t at = WStringView(m_strDoc).find(what, static_cast<size_t>(from));
    return at == WStringView::npos ? -1 : static_cast<int>(at);
  };

  int i = 0;
  while (i < n) {
    // Text and white space up to the next tag.
    const char16_t* lt = std::char_traits<char16_t>::find(p + i, static_cast<size_t>(n - i), u'<');
    if (lt == nullptr) break;
    i = static_cast<int>(lt - p);
    if (i + 1 >= n) {
      unterminated(u"start_tag", i);
      break;
    }
    char16_t c = p[i + 1];
    if (IsNameStart(c)) {
      bool hitLessThan;
      int end = scanTagEnd(i, hitLessThan);
      if (end < 0) {
        unterminated(u"start_tag", i);
        break;
      }
      int index = newElement();
      ElemPos& e = el(index);
      e.start = i;
      if (hitLessThan) {
        // Taken as an element that ends before the "<", so that what follows is parsed.
        unterminated(u"start_tag", i);
        e.startTagLen = end - i;
        e.length = e.startTagLen;
        link(index);
        i = end;
        continue;
      }
      e.startTagLen = end + 1 - i;
      e.length = e.startTagLen;
      link(index);
      if (p[end - 1] != u'/') push(index);
      i = end + 1;
    } else if (c == u'/') {
      if (i + 2 >= n) {
        unterminated(u"end_tag", i);
        break;
      }
      if (!IsNameStart(p[i + 2])) {
        noteSyntax(u"first_tag_syntax", i);
        i += 2;
        continue;
      }
      bool hitLessThan;
      int end = scanTagEnd(i, hitLessThan);
      if (end < 0) {
        unterminated(u"end_tag", i);
        break;
      }
      int nameEnd = i + 2;
      while (nameEnd < end && !EndsName(p[nameEnd])) ++nameEnd;
      WStringView name(p + i + 2, static_cast<size_t>(nameEnd - i - 2));
      int tagEnd = hitLessThan ? end : end + 1;
      if (hitLessThan) unterminated(u"end_tag", i);
      // The innermost open element of that name: match is its place in the stack plus one.
      size_t match = 0;
      if (!stack.empty()) {
        ++m_nEndTagMatchWork;
        if (tagName(stack.back()) == name) {
          match = stack.size();
        } else {
          if (!indexed) {
            for (size_t s = 0; s < stack.size(); ++s) openByName[tagName(stack[s])].push_back(s);
            m_nEndTagMatchWork += static_cast<long long>(stack.size());
            indexed = true;
          }
          auto found = openByName.find(name);
          if (found != openByName.end() && !found->second.empty()) match = found->second.back() + 1;
        }
      }
      if (match == 0) {
        m_bWellFormed = false;
        noteItem(u"lone_end_tag", {{u"tagname", WString(name)}, {u"offset", Number(i)}});
      } else {
        int closed = stack[match - 1];
        unindex(match - 1);
        if (match < stack.size()) closeUnended(stack, match, closed, tagEnd);
        ElemPos& e = el(closed);
        e.endTagLen = tagEnd - i;
        e.length = tagEnd - e.start;
        stack.pop_back();
      }
      i = tagEnd;
    } else if (c == u'!') {
      if (StartsWith(m_strDoc, static_cast<size_t>(i), u"<!--")) {
        int end = findText(i + 4, u"-->");
        if (end < 0) {
          unterminated(u"comment", i);
          break;
        }
        i = end + 3;
      } else if (StartsWith(m_strDoc, static_cast<size_t>(i), u"<![CDATA[")) {
        int end = findText(i + 9, u"]]>");
        if (end < 0) {
          unterminated(u"cdata_section", i);
          break;
        }
        i = end + 3;
      } else if (StartsWith(m_strDoc, static_cast<size_t>(i), u"<!DOCTYPE")) {
        // The document type: quoted literals, an internal subset of markup declarations,
        // comments, processing instructions and parameter-entity references.
        int j = i + 9;
        bool inSubset = false;
        bool done = false;
        bool flawed = false;
        while (j < n && !done) {
          char16_t d = p[j];
          if (d == u'"' || d == u'\'') {
            int close = findText(j + 1, WStringView(&d, 1));
            if (close < 0) break;
            j = close + 1;
          } else if (!inSubset) {
            if (d == u'[') inSubset = true;
            if (d == u'>') done = true;
            ++j;
          } else if (IsSpace(d)) {
            ++j;
          } else if (d == u']') {
            inSubset = false;
            ++j;
          } else if (StartsWith(m_strDoc, static_cast<size_t>(j), u"<!--")) {
            int close = findText(j + 4, u"-->");
            if (close < 0) break;
            j = close + 3;
          } else if (StartsWith(m_strDoc, static_cast<size_t>(j), u"<?")) {
            int close = findText(j + 2, u"?>");
            if (close < 0) break;
            j = close + 2;
          } else if (StartsWith(m_strDoc, static_cast<size_t>(j), u"<!") && j + 2 < n && IsNameStart(p[j + 2])) {
            ++j;
            while (j < n && p[j] != u'>') {
              if (p[j] == u'"' || p[j] == u'\'') {
                int close = findText(j + 1, WStringView(p + j, 1));
                if (close < 0) {
                  j = n;
                  break;
                }
                j = close;
              }
              ++j;
            }
            if (j >= n) break;
            ++j;
          } else if (d == u'%') {
            int semicolon = j + 1;
            while (semicolon < n && !IsSpace(p[semicolon]) && p[semicolon] != u';' && p[semicolon] != u'<') ++semicolon;
            if (semicolon < n && p[semicolon] == u';' && semicolon > j + 1) {
              j = semicolon + 1;
            } else {
              if (!flawed) noteSyntax(u"doctype_tag_syntax", j);
              flawed = true;
              ++j;
            }
          } else {
            if (!flawed) noteSyntax(u"doctype_tag_syntax", j);
            flawed = true;
            ++j;
          }
        }
        if (!done) {
          unterminated(u"document_type", i);
          break;
        }
        i = j;
      } else {
        char16_t d = i + 2 < n ? p[i + 2] : u'\0';
        noteSyntax(d == u'-'   ? u"comment_tag_syntax"
                   : d == u'[' ? u"cdata_section_syntax"
                               : u"exclamation_tag_syntax",
                   i);
        i += 2;
      }
    } else if (c == u'?') {
      int end = findText(i + 2, u"?>");
      if (end < 0) {
        unterminated(u"processing_instruction", i);
        break;
      }
      i = end + 2;
    } else {
      noteSyntax(u"first_tag_syntax", i);
      i += 1;
    }
  }
  if (!stack.empty()) closeUnended(stack, 0, 0, n);

  const ElemPos& doc = el(0);
  if (doc.child == 0) {
    m_bWellFormed = false;
    noteItem(u"no_root_element", {});
  } else if (el(doc.child).next != 0) {
    int second = el(doc.child).next;
    m_bWellFormed = false;
    noteItem(u"root_has_sibling", {{u"tagname", WString(tagName(second))}, {u"offset", Number(el(second).start)}});
  }
}

bool XmlDocument::setDocument(const char16_t* text) {
  if (text != nullptr) return setDocument(WString(text));
  TRACE(4, u"XmlDocument::setDocument()\t: cleared\n");
  m_strResult.clear();
  m_bLoadedEncoding = false;
  m_strDoc.clear();
  resetElements();
  resetPositions();
  m_bWellFormed = false;
  return false;
}

bool XmlDocument::setDocument(const WString& text) {
  m_strResult.clear();
  m_bLoadedEncoding = false;
  m_strDoc = text;
  parse();
  TRACE(4, u"XmlDocument::setDocument()\t: %d characters, %d elements, well formed %d\n",
        static_cast<int>(m_strDoc.size()), elementCount(), m_bWellFormed ? 1 : 0);
  return m_bWellFormed;
}

// ---------------------------------------------------------------------------------------------
// walking

void XmlDocument::resetPosition() {
  resetPositions();
}

bool XmlDocument::findElement(const char16_t* name) {
  m_iPosChild = 0;
  int candidate = m_iPos != 0 ? el(m_iPos).next : el(m_iPosParent).child;
  if (name != nullptr) {
    while (candidate != 0 && !nameMatches(candidate, name)) candidate = el(candidate).next;
  }
  if (candidate == 0) return false;
  m_iPos = candidate;
  m_nNodeEnd = -1;
  return true;
}

bool XmlDocument::intoElement() {
  if (m_iPos == 0) return false;
  m_iPosParent = m_iPos;
  m_iPos = m_iPosChild;
  m_iPosChild = 0;
  m_nNodeEnd = -1;
  return true;
}

bool XmlDocument::outOfElement() {
  if (m_iPosParent == 0) return false;
  m_iPosChild = m_iPos;
  m_iPos = m_iPosParent;
  m_iPosParent = el(m_iPos).parent;
  m_nNodeEnd = -1;
  return true;
}

WString XmlDocument::getTagName() const {
  return m_iPos == 0 ? WString() : WString(tagName(m_iPos));
}

WString XmlDocument::getAttrib(const char16_t* name) const {
  if (m_iPos == 0 || name == nullptr) return WString();
  const ElemPos& e = el(m_iPos);
  WString value;
  if (!FindAttribute(WStringView(m_strDoc).substr(static_cast<size_t>(e.start), static_cast<size_t>(e.startTagLen)),
                     name, false, value)) {
    return WString();
  }
  return decodeText(value);
}

WString XmlDocument::getData() const {
  if (m_iPos == 0) return WString();
  const ElemPos& e = el(m_iPos);
  if (e.endTagLen == 0) return WString();
  WStringView content = WStringView(m_strDoc).substr(static_cast<size_t>(e.start + e.startTagLen),
                                                     static_cast<size_t>(e.length - e.startTagLen - e.endTagLen));
  if (content.find(u'<') == WStringView::npos) return decodeText(content);
  // Text and CDATA pieces directly in the element; an element with children has no data.
  WString data;
  size_t i = 0;
  while (i < content.size()) {
    size_t lt = content.find(u'<', i);
    if (lt == WStringView::npos) lt = content.size();
    if (lt > i) data += decodeText(content.substr(i, lt - i));
    if (lt >= content.size()) break;
    size_t end;
    if (StartsWith(content, lt, u"<![CDATA[")) {
      end = content.find(u"]]>", lt + 9);
      if (end == WStringView::npos) end = content.size();
      data.append(content.substr(lt + 9, end - lt - 9));
      i = end + 3;
    } else if (StartsWith(content, lt, u"<!--")) {
      end = content.find(u"-->", lt + 4);
      i = end == WStringView::npos ? content.size() : end + 3;
    } else if (StartsWith(content, lt, u"<?")) {
      end = content.find(u"?>", lt + 2);
      i = end == WStringView::npos ? content.size() : end + 2;
    } else if (StartsWith(content, lt, u"</")) {
      // A stray end tag in flawed text is neither data nor a child.
      end = content.find(u'>', lt + 2);
      i = end == WStringView::npos ? content.size() : end + 1;
    } else {
      return WString();
    }
  }
  return data;
}

// ---------------------------------------------------------------------------------------------
// text helpers

WString XmlDocument::escapeText(WStringView text, int flags) {
  WString out;
  out.reserve(text.size() + text.size() / 8);
  const bool quotes = (flags & XML_EL_ESCAPE_QUOTES) != 0;
  const bool keepRefs = (flags & XML_EL_KEEP_REFS) != 0;
  for (size_t i = 0; i < text.size(); ++i) {
    char16_t c = text[i];
    switch (c) {
      case u'<':
        out += u"&lt;";
        break;
      case u'>':
        out += u"&gt;";
        break;
      case u'&': {
        size_t ref = keepRefs ? WellFormedReference(text, i) : 0;
        if (ref != 0) {
          out.append(text.substr(i, ref));
          i += ref - 1;
        } else {
          out += u"&amp;";
        }
        break;
      }
      case u'"':
        if (quotes) {
          out += u"&quot;";
        } else {
          out += c;
        }
        break;
      case u'\'':
        if (quotes) {
          out += u"&apos;";
        } else {
          out += c;
        }
        break;
      default:
        out += c;
    }
  }
  return out;
}

WString XmlDocument::decodeText(WStringView text) {
  size_t amp = text.find(u'&');
  if (amp == WStringView::npos) return WString(text);
  WString out(text.substr(0, amp));
  out.reserve(text.size());
  size_t i = amp;
  while (i < text.size()) {
    char16_t c = text[i];
    if (c != u'&') {
      out += c;
      ++i;
      continue;
    }
    // A reference runs from "&" over at most nine characters below 128 to ";".
    size_t semicolon = WStringView::npos;
    for (size_t k = i + 1; k < text.size() && k <= i + 10; ++k) {
      if (text[k] >= 128) break;
      if (text[k] == u';') {
        semicolon = k;
        break;
      }
    }
    long value = semicolon == WStringView::npos ? -1 : ReferenceValue(text.substr(i + 1, semicolon - i - 1));
    if (value < 0) {
      out += u'&';
      ++i;
      continue;
    }
    AppendCodePoint(out, static_cast<uint32_t>(value));
    i = semicolon + 1;
  }
  return out;
}

int XmlDocument::charsetCodePage(WStringView name) {
  if (StartsWith(name, 0, u"UTF-32")) return kCodePageUtf32;
  if (name.empty()) return 0;
  if (name.size() >= 100) return -1;
  return XmlCharsetTableLookup(name);
}

// ---------------------------------------------------------------------------------------------
// building

void XmlDocument::shiftSubtree(int root, int delta) {
  int i = root;
  while (true) {
    el(i).start += delta;
    if (el(i).child != 0) {
      i = el(i).child;
      continue;
    }
    while (i != root && el(i).next == 0) i = el(i).parent;
    if (i == root) return;
    i = el(i).next;
  }
}

// After `delta` characters went in at `offset`: every element that follows in document order moves
// and every element that contains the place grows.
void XmlDocument::adjustAfter(int parent, int nextSibling, int offset, int delta) {
  for (int s = nextSibling; s != 0; s = el(s).next) shiftSubtree(s, delta);
  for (int a = parent; a != 0; a = el(a).parent) {
    el(a).length += delta;
    for (int s = el(a).next; s != 0; s = el(s).next) shiftSubtree(s, delta);
  }
  el(0).length += delta;
  if (m_nNodeEnd > offset) m_nNodeEnd += delta;
}

// Takes the place of the inserted markup in the element array and in the positions: an element
// becomes the main element (or the child position when it went in as a child), a node moves the
// node cursor behind it.
void XmlDocument::registerInserted(bool isElement, bool asChild, int parent, int previous, int start, int length,
                                   int startTagLen, int endTagLen, int end) {
  if (!isElement) {
    if (!asChild) m_nNodeEnd = end;
    return;
  }
  int index = newElement();
  ElemPos& e = el(index);
  e.start = start;
  e.length = length;
  e.startTagLen = startTagLen;
  e.endTagLen = endTagLen;
  e.parent = parent;
  ElemPos& pp = el(parent);
  if (previous != 0) {
    e.next = el(previous).next;
    el(previous).next = index;
  } else {
    e.next = pp.child;
    pp.child = index;
  }
  if (e.next == 0) pp.lastChild = index;
  if (asChild) {
    m_iPosChild = index;
  } else {
    m_iPos = index;
    m_iPosChild = 0;
    m_nNodeEnd = -1;
  }
}

bool XmlDocument::insertMarkup(const WString& markup, bool lineEnd, bool asChild, bool isElement, int startTagLen,
                               int endTagLen) {
  const int parent = asChild ? m_iPos : m_iPosParent;
  const int previous = asChild ? el(parent).lastChild : (m_iPos != 0 ? m_iPos : el(parent).lastChild);
  const WString ending = lineEnd ? WString(u"\r\n") : WString();
  const int markupLength = static_cast<int>(markup.size());
  int offset;
  int leading = 0;  // "\r\n" put before the markup

  if (!asChild && m_nNodeEnd >= 0) {
    offset = m_nNodeEnd;  // behind the node inserted last
  } else if (previous != 0) {
    // Behind the previous element and its line end.
    const ElemPos& s = el(previous);
    offset = s.start + s.length;
    if (StartsWith(m_strDoc, static_cast<size_t>(offset), u"\r\n")) {
      offset += 2;
    } else if (StartsWith(m_strDoc, static_cast<size_t>(offset), u"\n")) {
      offset += 1;
    }
  } else if (parent == 0) {
    offset = static_cast<int>(m_strDoc.size());
  } else {
    ElemPos& pe = el(parent);
    const bool emptyElement = pe.endTagLen == 0 && pe.startTagLen >= 2 &&
                              m_strDoc[static_cast<size_t>(pe.start + pe.startTagLen - 2)] == u'/';
    if (emptyElement) {
      // The first child of <a/>: the element becomes <a>, a line end, the child, </a>. Every "/"
      // and blank at the end of the tag goes: "<a//>" or "<a / />" read as empty too, and a start
      // tag that still ended in "/" would stay empty and leave "</a>" without its start.
      int cut = pe.start + pe.startTagLen - 2;
      while (cut > pe.start + 1 &&
             (IsSpace(m_strDoc[static_cast<size_t>(cut - 1)]) || m_strDoc[static_cast<size_t>(cut - 1)] == u'/'))
        --cut;
      const WString endTag = u"</" + WString(tagName(parent)) + u">";
      m_strDoc.replace(static_cast<size_t>(cut), static_cast<size_t>(pe.start + pe.startTagLen - cut),
                       u">\r\n" + markup + ending + endTag);
      const int oldLength = pe.length;
      pe.startTagLen = cut - pe.start + 1;
      pe.endTagLen = static_cast<int>(endTag.size());
      pe.length = pe.startTagLen + 2 + markupLength + static_cast<int>(ending.size()) + pe.endTagLen;
      adjustAfter(pe.parent, pe.next, cut, pe.length - oldLength);
      const int start = pe.start + pe.startTagLen + 2;
      registerInserted(isElement, asChild, parent, 0, start, markupLength, startTagLen, endTagLen,
                       start + markupLength + static_cast<int>(ending.size()));
      return true;
    }
    // Content without child elements: in front of the end tag; empty content gets a line end first.
    offset = pe.start + pe.length - pe.endTagLen;
    if (pe.endTagLen != 0 && pe.length == pe.startTagLen + pe.endTagLen) leading = 2;
  }

  WString text;
  text.reserve(static_cast<size_t>(leading) + markup.size() + ending.size());
  if (leading != 0) text += u"\r\n";
  text += markup;
  text += ending;
  m_strDoc.insert(static_cast<size_t>(offset), text);
  const int delta = static_cast<int>(text.size());
  adjustAfter(parent, previous != 0 ? el(previous).next : el(parent).child, offset, delta);
  registerInserted(isElement, asChild, parent, previous, offset + leading, markupLength, startTagLen, endTagLen,
                   offset + delta);
  return true;
}

bool XmlDocument::addElement(const char16_t* name, const char16_t* data, int flags) {
  if (name == nullptr || *name == 0) return false;
  const bool hasData = data != nullptr && *data != 0;
  const bool asChild = (flags & XML_EL_CHILD) != 0;
  if (((flags & XML_EL_START_TAG_ONLY) != 0 && hasData) || (asChild && m_iPos == 0)) {
    TRACE(4, u"XmlDocument::addElement()\t: %s refused, flags 0x%X, main position %d\n", name, flags, m_iPos);
    return false;
  }

  WString markup = u"<";
  markup += name;
  int startTagLen;
  int endTagLen = 0;
  if ((flags & XML_EL_START_TAG_ONLY) != 0) {
    markup += u">";
    startTagLen = static_cast<int>(markup.size());
  } else if (!hasData) {
    markup += (flags & XML_EL_EMPTY_BLANK) != 0 ? u" />" : u"/>";
    startTagLen = static_cast<int>(markup.size());
  } else {
    markup += u">";
    startTagLen = static_cast<int>(markup.size());
    if ((flags & XML_EL_CDATA) != 0) {
      // A "]]>" in the data ends one section and starts the next between "]]" and ">".
      markup += u"<![CDATA[";
      markup += WReplaceAll(WString(data), u"]]>", u"]]]]><![CDATA[>");
      markup += u"]]>";
    } else {
      markup += escapeText(data, flags);
    }
    WString endTag = u"</" + WString(name) + u">";
    endTagLen = static_cast<int>(endTag.size());
    markup += endTag;
  }
  return insertMarkup(markup, (flags & XML_EL_NO_LINE_END) == 0, asChild, true, startTagLen, endTagLen);
}

bool XmlDocument::addNode(int type, const char16_t* text, int flags) {
  WString body = text != nullptr ? WString(text) : WString();
  WString markup;
  bool lineEnd = false;
  switch (type) {
    case XML_NODE_ELEMENT:
      if (body.empty()) return false;
      markup = u"<" + body + u"/>";
      return insertMarkup(markup, false, false, true, static_cast<int>(markup.size()), 0);
    case XML_NODE_TEXT:
    case XML_NODE_WHITESPACE:
      markup = escapeText(body, 0);
      break;
    case XML_NODE_CDATA:
      if (body.find(u"]]>") != WString::npos) {
        TRACE(4, u"XmlDocument::addNode()\t: CDATA text holds \"]]>\", refused\n");
        return false;
      }
      markup = u"<![CDATA[" + body + u"]]>";
      break;
    case XML_NODE_PI:
      markup = u"<?" + body + u"?>";
      lineEnd = true;
      break;
    case XML_NODE_COMMENT:
      markup = u"<!--" + body + u"-->";
      lineEnd = true;
      break;
    case XML_NODE_RAW:
      markup = body;
      lineEnd = true;
      break;
    case XML_NODE_END_TAG:
      markup = u"</" + body + u">";
      break;
    default:
      return true;
  }
  if ((flags & XML_EL_NO_LINE_END) != 0) lineEnd = false;
  if (markup.empty() && !lineEnd) return true;
  return insertMarkup(markup, lineEnd, false, false, 0, 0);
}

// ---------------------------------------------------------------------------------------------
// files

bool XmlDocument::load(const WString& path) {
  m_strResult.clear();
  if ((m_nDocFlags & (XML_DF_READ_FILE | XML_DF_WRITE_FILE)) != 0) return false;
  m_strDoc.clear();
  resetElements();
  resetPositions();
  m_bWellFormed = false;
  m_bLoadedEncoding = false;

  TRACE(3, u"XmlDocument::load()\t: start %s\n", path.c_str());
  std::string bytes;
  int error = 0;
  if (!ReadWholeFile(path, bytes, error)) {
    noteFileError(error);
    TRACE(1, u"XmlDocument::load()\t: >>>ERROR %s: %s\n", path.c_str(), getErrorText().c_str());
    return false;
  }
  const unsigned char* b = reinterpret_cast<const unsigned char*>(bytes.data());
  const size_t size = bytes.size();
  size_t pos = 0;
  int codePage = -1;  // -1: not settled yet
  WString encoding;
  m_nDocFlags &= ~(XML_DF_UTF8_BOM | XML_DF_UTF16LE_BOM | XML_DF_UTF16BE_BOM);
  if (size >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) {
    codePage = kCodePageUtf8;
    encoding = u"UTF-8";
    pos = 3;
    m_nDocFlags |= XML_DF_UTF8_BOM;
  } else if (size >= 2 && b[0] == 0xFF && b[1] == 0xFE) {
    codePage = kCodePageUtf16Le;
    encoding = u"UTF-16LE";
    pos = 2;
    m_nDocFlags |= XML_DF_UTF16LE_BOM;
  } else if (size >= 2 && b[0] == 0xFE && b[1] == 0xFF) {
    codePage = kCodePageUtf16Be;
    encoding = u"UTF-16BE";
    pos = 2;
    m_nDocFlags |= XML_DF_UTF16BE_BOM;
  }
  if (pos != 0) {
    noteItem(u"bom", {{u"encoding", encoding}});
  } else if (size >= 4 && b[0] == '<' && b[1] == 0 && b[2] != 0 && b[3] == 0) {
    // UTF-16 without a mark shows itself by the zero bytes around the first "<".
    codePage = kCodePageUtf16Le;
    encoding = u"UTF-16LE";
  } else if (size >= 4 && b[0] == 0 && b[1] == '<' && b[2] == 0 && b[3] != 0) {
    codePage = kCodePageUtf16Be;
    encoding = u"UTF-16BE";
  } else {
    WString probe;
    XmlUtf8ToWide(bytes.data(), std::min(size, kProbeBytes), probe);
    WString name;
    if (DeclaredEncoding(probe, name)) {
      int declaredCodePage = charsetCodePage(name);
      if (declaredCodePage == kCodePageUtf16Le || declaredCodePage == kCodePageUtf16Be) {
        // The declaration could be read byte by byte, so the text is not in 16-bit units.
        declaredCodePage = kCodePageUtf8;
      }
      if (CodePageKeepsDeclaration(declaredCodePage)) {
        codePage = declaredCodePage;
        encoding = name;
      }
    }
    if (codePage < 0 && size > 0 && b[0] == '<') {
      codePage = kCodePageUtf8;
      encoding = u"UTF-8";
    }
  }

  const char* body = bytes.data() + pos;
  const size_t bodySize = size - pos;
  if (codePage == kCodePageUtf16Le || codePage == kCodePageUtf16Be) {
    const size_t units = bodySize / 2;
    if (bodySize % 2 != 0) noteItem(u"truncation_error", {{u"encoding", encoding}});
    m_strDoc.resize(units);
    std::memcpy(m_strDoc.data(), body, units * 2);
    if (codePage == kCodePageUtf16Be) {
      for (char16_t& c : m_strDoc) c = static_cast<char16_t>((c << 8) | (c >> 8));
      noteItem(u"endian_swap", {});
    }
    size_t nulls = 0;
    size_t w = 0;
    for (size_t r = 0; r < m_strDoc.size(); ++r) {
      if (m_strDoc[r] == 0) {
        ++nulls;
      } else {
        m_strDoc[w++] = m_strDoc[r];
      }
    }
    m_strDoc.resize(w);
    if (nulls != 0) noteItem(u"nulls_removed", {{u"count", Number(static_cast<long long>(nulls))}});
    noteItem(u"read", {{u"encoding", encoding}, {u"length", Number(static_cast<long long>(bodySize))}});
  } else {
    if (codePage < 0) {
      const bool utf8 = XmlIsValidUtf8(body, bodySize);
      codePage = utf8 ? kCodePageUtf8 : 0;
      encoding = utf8 ? u"UTF-8" : u"";
      noteItem(u"utf8_detection", {});
    }
    if (codePage == kCodePageUtf8) {
      if (!XmlUtf8ToWide(body, bodySize, m_strDoc)) noteItem(u"truncation_error", {{u"encoding", encoding}});
    } else if (!platform::CodePageToWide(static_cast<uint32_t>(codePage), body, bodySize, m_strDoc)) {
      noteItem(u"truncation_error", {{u"encoding", encoding}});
    }
    noteItem(u"converted_to", {{u"encoding", encoding}, {u"length", Number(static_cast<long long>(bodySize))}});
  }
  m_bLoadedEncoding = true;
  m_nLoadedCodePage = codePage;
  m_strLoadedEncoding = encoding;
  parse();
  if (!m_bWellFormed) TRACE(1, u"XmlDocument::load()\t: >>>ERROR %s: %s\n", path.c_str(), getErrorText().c_str());
  TRACE(3, u"XmlDocument::load()\t: end, code page %d, %d elements, well formed %d\n", codePage, elementCount(),
        m_bWellFormed ? 1 : 0);
  return m_bWellFormed;
}

bool XmlDocument::save(const WString& path) {
  m_strResult.clear();
  if ((m_nDocFlags & (XML_DF_READ_FILE | XML_DF_WRITE_FILE)) != 0) return false;

  // The mark decides the form where one is asked for; otherwise the encoding that the last load
  // settled, then the one that the document declares, then UTF-8.
  std::string mark;
  int codePage;
  WString encoding;
  if ((m_nDocFlags & XML_DF_UTF8_BOM) != 0) {
    mark = "\xEF\xBB\xBF";
    codePage = kCodePageUtf8;
    encoding = u"UTF-8";
  } else if ((m_nDocFlags & XML_DF_UTF16LE_BOM) != 0) {
    mark = "\xFF\xFE";
    codePage = kCodePageUtf16Le;
    encoding = u"UTF-16LE";
  } else if ((m_nDocFlags & XML_DF_UTF16BE_BOM) != 0) {
    mark = "\xFE\xFF";
    codePage = kCodePageUtf16Be;
    encoding = u"UTF-16BE";
  } else if (m_bLoadedEncoding) {
    codePage = m_nLoadedCodePage;
    encoding = m_strLoadedEncoding;
  } else {
    codePage = kCodePageUtf8;
    encoding = u"UTF-8";
    WString name;
    if (DeclaredEncoding(WStringView(m_strDoc).substr(0, kProbeBytes), name)) {
      int declaredCodePage = charsetCodePage(name);
      // UTF-16 without a mark is recognised by "<" and a character below U+0100 in front; other
      // text goes out in UTF-8, which the reader takes for a declared UTF-16 read byte by byte.
      const bool utf16 = declaredCodePage == kCodePageUtf16Le || declaredCodePage == kCodePageUtf16Be;
      if (utf16 ? m_strDoc.size() >= 2 && m_strDoc[0] == u'<' && m_strDoc[1] != 0 && m_strDoc[1] < 0x100
                : CodePageKeepsDeclaration(declaredCodePage)) {
        codePage = declaredCodePage;
        encoding = name;
      }
    }
  }

  std::string bytes;
  if (codePage == kCodePageUtf16Le || codePage == kCodePageUtf16Be) {
    bytes.resize(m_strDoc.size() * 2);
    std::memcpy(bytes.data(), m_strDoc.data(), bytes.size());
    if (codePage == kCodePageUtf16Be) {
      for (size_t k = 0; k + 1 < bytes.size(); k += 2) std::swap(bytes[k], bytes[k + 1]);
    }
    noteItem(u"write", {{u"encoding", encoding}, {u"length", Number(static_cast<long long>(bytes.size()))}});
  } else {
    bool lossy = false;
    if (codePage == kCodePageUtf8) {
      lossy = !XmlWideToUtf8(m_strDoc, bytes);
    } else if (codePage == kCodePageUtf7) {
      // The system's converter writes "<", ">", "=" and quotes in base64 ("+ADw-"): the file would
      // no longer show its declaration and would read back as other text.
      lossy = !XmlWideToUtf7(m_strDoc, bytes);
    } else if (!platform::WideToCodePage(static_cast<uint32_t>(codePage), m_strDoc, bytes, &lossy)) {
      lossy = !XmlWideToUtf8(m_strDoc, bytes);
    }
    noteItem(u"converted_from", {{u"encoding", encoding}, {u"length", Number(static_cast<long long>(bytes.size()))}});
    if (lossy) noteItem(u"conversion_loss", {});
  }
  int error = 0;
  if (!WriteWholeFile(path, mark, bytes, error)) {
    noteFileError(error);
    TRACE(1, u"XmlDocument::save()\t: >>>ERROR %s: %s\n", path.c_str(), getErrorText().c_str());
    return false;
  }
  TRACE(3, u"XmlDocument::save()\t: %s, code page %d, %d bytes\n", path.c_str(), codePage,
        static_cast<int>(mark.size() + bytes.size()));
  return true;
}

// ---------------------------------------------------------------------------------------------
// error text

WString XmlDocument::getErrorText() const {
  XmlDocument record;
  record.setDocument(m_strResult);
  WString text;
  bool syntaxGiven = false;
  auto join = [&text](const WString& piece) {
    if (!text.empty()) text += u' ';
    text += piece;
  };
  while (record.findElement()) {
    const WString item = record.getTagName();
    const bool syntax = item == u"root_has_sibling" || item == u"no_root_element" || item == u"lone_end_tag" ||
                        item == u"unended_start_tag" || item.ends_with(u"_syntax");
    if (syntax) {
      if (syntaxGiven) continue;
      syntaxGiven = true;
    }
    const WString offset = record.getAttrib(u"offset");
    if (item == u"root_has_sibling") {
      join(u"root element has sibling");
    } else if (item == u"no_root_element") {
      join(u"no root element");
    } else if (item == u"lone_end_tag") {
      join(u"lone end tag '" + record.getAttrib(u"tagname") + u"' at offset " + offset);
    } else if (item == u"unended_start_tag") {
      join(u"start tag '" + record.getAttrib(u"tagname") + u"' at offset " + offset + u" expecting end tag at offset " +
           record.getAttrib(u"offset2"));
    } else if (item == u"first_tag_syntax") {
      join(u"tag syntax error at offset " + offset + u" expecting tag name / ! or ?");
    } else if (item == u"exclamation_tag_syntax") {
      join(u"tag syntax error at offset " + offset + u" expecting 'DOCTYPE' [ or -");
    } else if (item == u"doctype_tag_syntax") {
      join(u"tag syntax error at offset " + offset + u" expecting markup declaration");
    } else if (item == u"comment_tag_syntax") {
      join(u"tag syntax error at offset " + offset + u" expecting - to begin comment");
    } else if (item == u"cdata_section_syntax") {
      join(u"tag syntax error at offset " + offset + u" expecting 'CDATA'");
    } else if (item == u"unterminated_tag_syntax") {
      join(u"unterminated tag at offset " + offset);
    } else if (item == u"file_error") {
      join(record.getAttrib(u"msg"));
    } else if (item == u"bom") {
      join(u"BOM +");
    } else if (item == u"read" || item == u"write" || item == u"converted_to" || item == u"converted_from") {
      WString piece = item == u"converted_to" ? u"to " : u"";
      const WString encoding = record.getAttrib(u"encoding");
      if (!encoding.empty()) piece += encoding + u" ";
      piece += u"length " + record.getAttrib(u"length");
      if (item == u"converted_from") piece += u" to";
      join(piece);
    } else if (item == u"nulls_removed") {
      join(u"removed " + record.getAttrib(u"count") + u" nulls");
    } else if (item == u"conversion_loss") {
      join(u"(chars lost in conversion!)");
    } else if (item == u"utf8_detection") {
      join(u"(used UTF-8 detection)");
    } else if (item == u"endian_swap") {
      join(u"endian swap");
    } else if (item == u"truncation_error") {
      join(u"encoding " + record.getAttrib(u"encoding") + u" adjustment error");
    }
  }
  return text;
}
