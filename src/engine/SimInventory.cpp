#include "engine/SimInventory.h"

#include <string_view>

#include "base/WFormat.h"
#include "platform/FileIo.h"

namespace engine {
namespace {

// A carriage return left over from a line that ended in two of them counts as a blank: a value
// must read back as it was written.
bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t' || c == u'\r';
}

WStringView Trim(WStringView text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

enum class Section { kNone, kSystem, kComponent };

// The keys one section has seen, for the duplicate rule.
struct SeenKeys {
  std::vector<WString> keys;
  bool Add(WStringView key) {
    for (const WString& k : keys)
      if (WEqualsNoCase(k, key)) return false;
    keys.emplace_back(key);
    return true;
  }
};

}  // namespace

const WString& SimInventory::DefaultOs() {
#ifdef _WIN32
  static const WString os = u"windows";
#else
  static const WString os = u"linux";
#endif
  return os;
}

SimInventory::SimInventory() : m_os(DefaultOs()) {}

bool SimInventory::Parse(const std::string& bytes, WString& error) {
  std::string_view view(bytes);
  if (view.substr(0, 3) == "\xEF\xBB\xBF") view.remove_prefix(3);
  const WString text = WFromUtf8(view);

  SimInventory result;
  Section section = Section::kNone;
  bool sawSystem = false;
  SeenKeys seen;
  size_t componentLine = 0;
  auto fail = [&error](size_t line, const char16_t* what) {
    error = WFormat(u"line %u: %s", static_cast<unsigned>(line), what);
    return false;
  };
  // The component section that just ended must have its type.
  auto closeComponent = [&]() { return section != Section::kComponent || !result.m_components.back().type.empty(); };

  size_t lineNo = 0, pos = 0;
  while (pos < text.size()) {
    size_t end = text.find(u'\n', pos);
    WStringView line(text.data() + pos, (end == WString::npos ? text.size() : end) - pos);
    pos = end == WString::npos ? text.size() : end + 1;
    ++lineNo;
    if (!line.empty() && line.back() == u'\r') line.remove_suffix(1);
    line = Trim(line);
    if (line.empty() || line.front() == u'#' || line.front() == u';') continue;

    if (line.front() == u'[') {
      if (line.back() != u']') return fail(lineNo, u"a section line without its closing bracket");
      if (!closeComponent()) return fail(componentLine, u"a component without type");
      WStringView name = Trim(line.substr(1, line.size() - 2));
      seen = SeenKeys();
      if (WEqualsNoCase(name, u"system")) {
        if (sawSystem) return fail(lineNo, u"a second [system] section");
        sawSystem = true;
        section = Section::kSystem;
      } else if (WEqualsNoCase(name, u"component")) {
        section = Section::kComponent;
        componentLine = lineNo;
        result.m_components.emplace_back();
      } else {
        return fail(lineNo, u"an unknown section");
      }
      continue;
    }

    size_t eq = line.find(u'=');
    if (eq == WStringView::npos) return fail(lineNo, u"neither a section, a key=value line nor a comment");
    WStringView key = Trim(line.substr(0, eq));
    WStringView value = Trim(line.substr(eq + 1));
    if (key.empty()) return fail(lineNo, u"a value without its key");
    if (section == Section::kNone) return fail(lineNo, u"a key outside a section");
    if (!seen.Add(key)) return fail(lineNo, u"a key given twice in one section");
    if (section == Section::kSystem) {
      if (WEqualsNoCase(key, u"os")) result.m_os = WString(value);
      continue;  // keys of a newer writer
    }
    SimComponent& c = result.m_components.back();
    if (WEqualsNoCase(key, u"type"))
      c.type = WString(value);
    else if (WEqualsNoCase(key, u"subtype"))
      c.subtype = WString(value);
    else if (WEqualsNoCase(key, u"objectName"))
      c.objectName = WString(value);
    else if (WEqualsNoCase(key, u"version"))
      c.version = WString(value);
    else if (WEqualsNoCase(key, u"compId"))
      c.compId = WString(value);
    else if (WEqualsNoCase(key, u"description"))
      c.description = WString(value);
  }
  if (!closeComponent()) return fail(componentLine, u"a component without type");
  *this = std::move(result);
  return true;
}

std::string SimInventory::Format() const {
  WString out = u"# Installed components of the simulated update engine\n[system]\nos=" + m_os + u"\n";
  for (const SimComponent& c : m_components) {
    out += u"\n[component]\ntype=" + c.type + u"\nsubtype=" + c.subtype + u"\nobjectName=" + c.objectName +
           u"\nversion=" + c.version + u"\ncompId=" + c.compId + u"\ndescription=" + c.description + u"\n";
  }
  return WToUtf8(out);
}

const SimComponent* SimInventory::SupportPack() const {
  for (const SimComponent& c : m_components)
    if (c.type == kSupportPackType) return &c;
  return nullptr;
}

bool SimInventory::Save(const WString& path) const {
  // What cannot be read back as it is must not replace a good file.
  const std::string bytes = Format();
  SimInventory reread;
  WString error;
  if (!reread.Parse(bytes, error) || !(reread == *this)) return false;

  const WString temp = path + u".new";
  if (!platform::WriteWholeFile(temp, bytes.data(), bytes.size())) return false;
  if (!platform::RenamePath(temp, path)) {
    platform::RemoveFilePath(temp);
    return false;
  }
  return true;
}

}  // namespace engine
