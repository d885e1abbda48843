#include "engine/VersionCompare.h"

namespace engine {
namespace {

bool IsDigit(char16_t c) {
  return c >= u'0' && c <= u'9';
}

// The next element of `text` from `pos` on (up to the next '.' or the end); moves `pos` behind
// the dot. An exhausted text gives the element "0".
WStringView NextElement(WStringView text, size_t& pos, bool& present) {
  present = pos <= text.size() && !text.empty();
  if (!present) return u"0";
  size_t dot = text.find(u'.', pos);
  WStringView element = text.substr(pos, dot == WStringView::npos ? WStringView::npos : dot - pos);
  pos = dot == WStringView::npos ? text.size() + 1 : dot + 1;
  return element;
}

int Sign(int value) {
  return value < 0 ? -1 : (value > 0 ? 1 : 0);
}

// One element: its digit run as a number of any length, then the rest as text.
int CompareElements(WStringView a, WStringView b) {
  size_t da = 0, db = 0;
  while (da < a.size() && IsDigit(a[da])) ++da;
  while (db < b.size() && IsDigit(b[db])) ++db;
  // Leading zeros do not change the number; what remains compares by length, then digit by digit.
  size_t za = 0, zb = 0;
  while (za < da && a[za] == u'0') ++za;
  while (zb < db && b[zb] == u'0') ++zb;
  WStringView na = a.substr(za, da - za), nb = b.substr(zb, db - zb);
  if (na.size() != nb.size()) return na.size() < nb.size() ? -1 : 1;
  if (int c = na.compare(nb)) return Sign(c);
  return Sign(a.substr(da).compare(b.substr(db)));
}

}  // namespace

int CompareVersions(WStringView a, WStringView b) {
  size_t pa = 0, pb = 0;
  for (;;) {
    bool hasA = false, hasB = false;
    WStringView ea = NextElement(a, pa, hasA);
    WStringView eb = NextElement(b, pb, hasB);
    if (!hasA && !hasB) return 0;
    if (int c = CompareElements(ea, eb)) return c;
  }
}

}  // namespace engine
