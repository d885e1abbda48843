#include "foundation/VersionLine.h"

#include <cstdint>

#include "foundation/CDebug.h"

namespace versionline {

namespace {

// Successive tokenising as the version files are read: leading delimiters are skipped, so a run
// of delimiters counts as one and no field is empty; one delimiter behind the field is consumed.
class FieldReader {
 public:
  explicit FieldReader(const WString& line) : m_line(line) {}
  bool Next(const char16_t* delimiters, WString& field) {
    auto isDelim = [&](char16_t c) {
      for (const char16_t* d = delimiters; *d; ++d)
        if (*d == c) return true;
      return false;
    };
    while (m_pos < m_line.size() && isDelim(m_line[m_pos])) ++m_pos;
    if (m_pos >= m_line.size()) return false;
    size_t start = m_pos;
    while (m_pos < m_line.size() && !isDelim(m_line[m_pos])) ++m_pos;
    field = m_line.substr(start, m_pos - start);
    if (m_pos < m_line.size()) ++m_pos;
    return true;
  }

 private:
  const WString& m_line;
  size_t m_pos = 0;
};

// A number of any length saturates instead of overflowing, as the C library's conversions do.
constexpr int64_t kSaturated = int64_t{1} << 40;
int64_t Accumulate(int64_t v, char16_t digit) {
  return v >= kSaturated ? kSaturated : v * 10 + (digit - u'0');
}
int32_t To32(int64_t v) {
  return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v);
}

// Digits only, or "-" first and the rest untested; `stopAtLineFeed` ends the number at a LF.
bool ParseSigned(const WString& field, int fieldNumber, bool stopAtLineFeed, int64_t& value) {
  if (field.empty()) return false;
  if (field[0] == u'-') {
    // The rest of the field is not tested: its leading digits make the number.
    int64_t v = 0;
    for (size_t i = 1; i < field.size() && field[i] >= u'0' && field[i] <= u'9'; ++i) v = Accumulate(v, field[i]);
    value = -v;
    return true;
  }
  int64_t v = 0;
  size_t i = 0;
  for (; i < field.size(); ++i) {
    char16_t c = field[i];
    if (stopAtLineFeed && c == u'\n' && i > 0) break;
    if (c < u'0' || c > u'9') {
      TRACE(1, u">>>ERROR - No digit: %d x%cx", fieldNumber, static_cast<int>(c));
      return false;
    }
    v = Accumulate(v, c);
  }
  value = v;
  return true;
}

}  // namespace

int Parse(const WString& line, VersionLineInfo& info) {
  if (!line.empty() && line[0] == u'#') return kComment;
  info = VersionLineInfo{};
  FieldReader reader(line);
  WString field;
  int64_t number = 0;
  if (!reader.Next(u"\t", field)) return -1;
  info.leafRelPath = WReplaceAll(field, u"\\", u"/");
  if (!reader.Next(u"\t\n\r", field) || !ParseSigned(field, 2, false, number)) return -1;
  info.leafVersion = To32(number);
  if (!reader.Next(u"\t\n\r", field) || field.empty() || field[0] == u' ') return -3;
  info.leafExeFile = field;
  if (!reader.Next(u"\t", field) || field[0] == u'-' || !ParseSigned(field, 4, false, number)) return -1;
  info.leafExeFileSize = number;
  if (!reader.Next(u"\t", field)) return -4;
  if (field[0] != u'F' && field[0] != u'C' && field[0] != u'L') {
    TRACE(1, u">>>ERROR - Wrong leaf type: %c", static_cast<int>(field[0]));
    return -1;
  }
  info.leafType = field[0];
  if (!reader.Next(u"\t", field)) return -1;
  info.commonLeaf = field;
  if (!reader.Next(u"\t", field) || !ParseSigned(field, 7, false, number)) return -1;
  info.commonVersion = To32(number);
  if (!reader.Next(u"\t", field) || !ParseSigned(field, 8, true, number)) return -1;
  info.oldVersion = To32(number);
  return 0;
}

int ParseStrict(const WString& line, VersionLineInfo& info) {
  int result = Parse(line, info);
  return (result == kShort || result == kFourFields) ? kSyntaxError : result;
}

}  // namespace versionline
