#include "engine/ComponentDescription.h"

#include <limits>

#include "foundation/XmlEncoding.h"
#include "platform/CodePage.h"

namespace engine {
namespace {

constexpr uint32_t kWindows1252 = 1252;

bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t';
}

// A decimal number of digits only that fits 32 bits.
bool ParseNumber(WStringView text, uint32_t& value) {
  if (text.empty()) return false;
  uint64_t v = 0;
  for (char16_t c : text) {
    if (c < u'0' || c > u'9') return false;
    v = v * 10 + static_cast<uint32_t>(c - u'0');
    if (v > std::numeric_limits<uint32_t>::max()) return false;
  }
  value = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

WString DecodeDescriptionText(const std::string& bytes) {
  if (XmlIsValidUtf8(bytes.data(), bytes.size())) {
    std::string_view view(bytes);
    if (view.substr(0, 3) == "\xEF\xBB\xBF") view.remove_prefix(3);
    return WFromUtf8(view);
  }
  WString text;
  if (!platform::CodePageToWide(kWindows1252, bytes.data(), bytes.size(), text)) text = WFromAscii(bytes);
  return text;
}

int32_t ComponentDescription::Parse(const std::string& bytes, WString& reason) {
  const WString text = DecodeDescriptionText(bytes);
  bool hasObjectName = false, hasVersion = false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find(u'\n', pos);
    WStringView line(text.data() + pos, (end == WString::npos ? text.size() : end) - pos);
    pos = end == WString::npos ? text.size() : end + 1;
    if (!line.empty() && line.back() == u'\r') line.remove_suffix(1);
    if (line.empty() || line.front() == u'#') continue;
    size_t eq = line.find(u'=');
    if (eq == WStringView::npos) continue;  // not a field: nothing the engine reads
    WStringView key = line.substr(0, eq);
    while (!key.empty() && IsBlank(key.front())) key.remove_prefix(1);
    while (!key.empty() && IsBlank(key.back())) key.remove_suffix(1);
    WString value(line.substr(eq + 1));

    struct Field {
      const char16_t* name;
      WString* target;
    };
    const Field fields[] = {
        {u"type", &type},
        {u"subtype", &subtype},
        {u"objectName", &objectName},
        {u"pciId", &pciId},
        {u"version", &version},
        {u"severity", &severity},
        {u"reboot", &reboot},
        {u"installTime", &installTime},
        {u"prerequisite", &prerequisite},
        {u"os", &os},
        {u"mandatory", &mandatory},
        {u"packageFile", &packageFile},
        {u"formatVersion", &formatVersion},
        {u"minStepVersion", &minStepVersion},
    };
    for (const Field& f : fields) {
      if (!WEqualsNoCase(key, f.name)) continue;
      *f.target = std::move(value);  // a key given twice: the last one counts
      if (f.target == &objectName) hasObjectName = true;
      if (f.target == &version) hasVersion = true;
      break;
    }
  }

  // A newer format may name its fields otherwise: it is not judged by this format's rules.
  uint32_t format = 0;
  if (!ParseNumber(formatVersion, format) || format != 1) {
    reason = u"formatVersion '" + formatVersion + u"' is not 1";
    return kUnknownFormatVersion;
  }
  if (!hasObjectName || objectName.empty()) {
    reason = u"no objectName";
    return kBrokenDescription;
  }
  if (!hasVersion || version.empty()) {
    reason = u"no version";
    return kBrokenDescription;
  }
  if (!ParseNumber(installTime, installTimeValue)) {
    reason = u"installTime '" + installTime + u"' is not a number";
    return kBrokenDescription;
  }
  if (mandatory != u"0" && mandatory != u"1") {
    reason = u"mandatory '" + mandatory + u"' is not 0 or 1";
    return kBrokenDescription;
  }
  mandatoryValue = mandatory == u"1" ? 1 : 0;
  return 0;
}

}  // namespace engine
