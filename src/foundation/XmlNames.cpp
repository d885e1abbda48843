#include "foundation/XmlNames.h"

#include "foundation/XmlNameTables.inc"

namespace {

// Entries of a bucket: `lengthDigits` digits with the name's length, `codeDigits` digits with the
// value, the lower-cased name. The bucket is the sum of the lowered character codes.
int LookUp(const char* const* table, unsigned buckets, int lengthDigits, int codeDigits, WStringView name,
           size_t maxLength) {
  if (name.empty() || name.size() > maxLength) return -1;
  char lowered[128];
  unsigned sum = 0;
  for (size_t i = 0; i < name.size(); ++i) {
    char16_t c = WToLowerAscii(name[i]);
    if (c == 0 || c >= 128) return -1;  // the tables hold ASCII names only
    lowered[i] = static_cast<char>(c);
    sum += c;
  }
  const char* p = table[sum % buckets];
  while (*p != '\0') {
    int length = 0;
    for (int k = 0; k < lengthDigits; ++k) length = length * 10 + (*p++ - '0');
    int value = 0;
    for (int k = 0; k < codeDigits; ++k) value = value * 10 + (*p++ - '0');
    if (static_cast<size_t>(length) == name.size()) {
      bool equal = true;
      for (int k = 0; k < length && equal; ++k) equal = p[k] == lowered[k];
      if (equal) return value;
    }
    p += length;
  }
  return -1;
}

}  // namespace

int XmlEntityCodePoint(WStringView name) {
  return LookUp(kXmlEntityTable, kXmlEntityBuckets, 1, 4, name, 9);
}

int XmlCharsetTableLookup(WStringView name) {
  return LookUp(kXmlCharsetTable, kXmlCharsetBuckets, 2, 5, name, 99);
}
