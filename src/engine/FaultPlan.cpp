#include "engine/FaultPlan.h"

#include <limits>
#include <stdexcept>

#include "base/WFormat.h"
#include "engine/ORMUX.h"
#include "platform/FileIo.h"

namespace engine {
namespace {

bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t';
}

WStringView Trim(WStringView text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

bool ParseNumber(WStringView text, uint32_t& value) {
  text = Trim(text);
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

// "<code>[,<text>]" of a ZTException; the text may hold commas.
bool ParseZtThrow(WStringView value, PlannedThrow& out, const char16_t* defaultText) {
  size_t comma = value.find(u',');
  if (!ParseNumber(value.substr(0, comma), out.code)) return false;
  out.other = false;
  out.text = comma == WStringView::npos ? WString(defaultText) : WString(value.substr(comma + 1));
  return true;
}

// "<N>[,<code>[,<text>]]" of an iterator's fetch.
bool ParseFetchThrow(WStringView value, PlannedFetchThrow& out, bool other) {
  size_t comma = value.find(u',');
  uint32_t n = 0;
  if (!ParseNumber(value.substr(0, comma), n) || n == 0) return false;
  PlannedThrow what;
  if (other) {
    if (comma != WStringView::npos) return false;
    what.other = true;
    what.text = WFormat(u"simulated failure at element fetch %u", n);
  } else if (comma == WStringView::npos) {
    what.code = 1;
    what.text = WFormat(u"simulated engine exception at element fetch %u", n);
  } else if (!ParseZtThrow(value.substr(comma + 1), what, u"simulated engine exception")) {
    return false;
  }
  out.fetch = n;
  out.what = std::move(what);
  return true;
}

struct OpName {
  FaultOp op;
  const char16_t* name;
};
constexpr OpName kOps[] = {
    {FaultOp::kUseLocalInventory, u"UseLocalInventory"},
    {FaultOp::kDoKordUpScan, u"DoKordUpScan"},
    {FaultOp::kGetUpdateInventoryIterator, u"GetUpdateInventoryIterator"},
    {FaultOp::kGetInventoryIterator, u"GetInventoryIterator"},
};

// One key=value line into the plan; false when it is not understood.
bool Apply(FaultPlan& plan, WStringView key, WStringView value) {
  uint32_t n = 0;
  if (WEqualsNoCase(key, u"UseLocalInventory")) {
    if (!ParseNumber(value, n)) return false;
    plan.useLocalInventoryResult = n;
    return true;
  }
  if (WEqualsNoCase(key, u"GetUpdateInventoryIterator")) {
    if (!ParseNumber(value, n)) return false;
    plan.updateIteratorResult = n;
    return true;
  }
  if (WEqualsNoCase(key, u"GetInventoryIterator")) {
    if (!WEqualsNoCase(Trim(value), u"null")) return false;
    plan.inventoryIteratorNull = true;
    return true;
  }
  if (WEqualsNoCase(key, u"UpdateIteratorThrow")) return ParseFetchThrow(value, plan.updateFetch, false);
  if (WEqualsNoCase(key, u"UpdateIteratorThrowOther")) return ParseFetchThrow(value, plan.updateFetch, true);
  if (WEqualsNoCase(key, u"InventoryIteratorThrow")) return ParseFetchThrow(value, plan.inventoryFetch, false);
  if (WEqualsNoCase(key, u"InventoryIteratorThrowOther")) return ParseFetchThrow(value, plan.inventoryFetch, true);
  for (const OpName& op : kOps) {
    const WString name(op.name);
    std::optional<PlannedThrow>& slot = plan.opThrow[static_cast<int>(op.op)];
    if (WEqualsNoCase(key, name + u"Throw")) {
      PlannedThrow t;
      if (!ParseZtThrow(value, t, u"simulated engine exception")) return false;
      slot = std::move(t);
      return true;
    }
    if (WEqualsNoCase(key, name + u"ThrowOther")) {
      PlannedThrow t;
      t.other = true;
      t.text = value.empty() ? WString(u"simulated failure") : WString(value);
      slot = std::move(t);
      return true;
    }
  }
  return false;
}

}  // namespace

void PlannedThrow::Throw() const {
  if (other) throw std::runtime_error(WToUtf8(text));
  throw ZTException(text, code);
}

void FaultPlan::ThrowFor(FaultOp op) const {
  const std::optional<PlannedThrow>& t = opThrow[static_cast<int>(op)];
  if (t) t->Throw();
}

FaultPlan FaultPlan::Parse(const std::string& bytes, std::vector<WString>& problems) {
  std::string_view view(bytes);
  if (view.substr(0, 3) == "\xEF\xBB\xBF") view.remove_prefix(3);
  const WString text = WFromUtf8(view);
  FaultPlan plan;
  size_t pos = 0, lineNo = 0;
  while (pos < text.size()) {
    size_t end = text.find(u'\n', pos);
    WStringView line(text.data() + pos, (end == WString::npos ? text.size() : end) - pos);
    pos = end == WString::npos ? text.size() : end + 1;
    ++lineNo;
    if (!line.empty() && line.back() == u'\r') line.remove_suffix(1);
    line = Trim(line);
    if (line.empty() || line.front() == u'#' || line.front() == u';') continue;
    size_t eq = line.find(u'=');
    bool ok = eq != WStringView::npos && Apply(plan, Trim(line.substr(0, eq)), Trim(line.substr(eq + 1)));
    if (!ok)
      problems.push_back(
          WFormat(u"faults.txt line %u ignored: %s", static_cast<unsigned>(lineNo), WString(line).c_str()));
  }
  return plan;
}

FaultPlan FaultPlan::Load(const WString& path, std::vector<WString>& problems) {
  std::string bytes;
  if (!platform::FileExists(path) || !platform::ReadWholeFile(path, bytes)) return FaultPlan();
  return Parse(bytes, problems);
}

}  // namespace engine
