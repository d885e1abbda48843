// Code-page conversion on POSIX: iconv with the charset name that matches the Windows code page
// number. The "ANSI" code page is Windows-1252 here.
#include "platform/CodePage.h"

#include <errno.h>
#include <iconv.h>

#include <cstring>
#include <vector>

namespace platform {
namespace {

struct CodePageName {
  uint32_t codePage;
  const char* name;
};

// Windows code page numbers and the iconv names of the same character sets.
constexpr CodePageName kNames[] = {
    {65001, "UTF-8"},        {65000, "UTF-7"},       {1200, "UTF-16LE"},     {1201, "UTF-16BE"},
    {12000, "UTF-32LE"},     {12001, "UTF-32BE"},    {1250, "CP1250"},       {1251, "CP1251"},
    {1252, "CP1252"},        {1253, "CP1253"},       {1254, "CP1254"},       {1255, "CP1255"},
    {1256, "CP1256"},        {1257, "CP1257"},       {1258, "CP1258"},       {874, "CP874"},
    {28591, "ISO-8859-1"},   {28592, "ISO-8859-2"},  {28593, "ISO-8859-3"},  {28594, "ISO-8859-4"},
    {28595, "ISO-8859-5"},   {28596, "ISO-8859-6"},  {28597, "ISO-8859-7"},  {28598, "ISO-8859-8"},
    {38598, "ISO-8859-8"},   {28599, "ISO-8859-9"},  {28603, "ISO-8859-13"}, {28605, "ISO-8859-15"},
    {932, "CP932"},          {936, "CP936"},         {54936, "GB18030"},     {949, "CP949"},
    {950, "CP950"},          {1361, "JOHAB"},        {20127, "ASCII"},       {20932, "EUC-JP"},
    {51932, "EUC-JP"},       {51936, "EUC-CN"},      {20936, "GB2312"},      {51949, "EUC-KR"},
    {50220, "ISO-2022-JP"},  {50221, "ISO-2022-JP"}, {50222, "ISO-2022-JP"}, {50225, "ISO-2022-KR"},
    {52936, "HZ-GB-2312"},   {437, "CP437"},         {737, "CP737"},         {775, "CP775"},
    {850, "CP850"},          {852, "CP852"},         {855, "CP855"},         {857, "CP857"},
    {858, "CP858"},          {860, "CP860"},         {861, "CP861"},         {862, "CP862"},
    {863, "CP863"},          {864, "CP864"},         {865, "CP865"},         {866, "CP866"},
    {869, "CP869"},          {20866, "KOI8-R"},      {21866, "KOI8-U"},      {10000, "MACINTOSH"},
    {10007, "MAC-CYRILLIC"}, {37, "CP037"},          {500, "CP500"},         {1026, "CP1026"},
    {20273, "CP273"},        {20277, "CP277"},       {20278, "CP278"},       {20280, "CP280"},
    {20284, "CP284"},        {20285, "CP285"},       {20297, "CP297"},       {20871, "CP871"},
    {1047, "CP1047"},        {708, "ISO-8859-6"},    {720, "CP720"},
};

const char* IconvName(uint32_t codePage) {
  if (codePage == kCodePageAnsi) return "CP1252";
  for (const CodePageName& entry : kNames) {
    if (entry.codePage == codePage) return entry.name;
  }
  return nullptr;
}

// Windows maps the five unassigned bytes of Windows-1252 to the C1 controls of the same value;
// glibc refuses them. Keeping the Windows mapping makes both builds read and write the same text.
bool IsCp1252Hole(uint32_t value) {
  return value == 0x81 || value == 0x8D || value == 0x8F || value == 0x90 || value == 0x9D;
}

class Converter {
 public:
  Converter(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
  ~Converter() {
    if (ok()) iconv_close(cd_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }
  iconv_t get() const { return cd_; }

 private:
  iconv_t cd_;
};

}  // namespace

bool CodePageSupported(uint32_t codePage) {
  const char* name = IconvName(codePage);
  if (name == nullptr) return false;
  Converter probe("UTF-16LE", name);
  return probe.ok();
}

bool CodePageToWide(uint32_t codePage, const char* data, size_t length, WString& out) {
  out.clear();
  const char* name = IconvName(codePage);
  if (name == nullptr) return false;
  Converter conv("UTF-16LE", name);
  if (!conv.ok()) return false;
  const bool ansi1252 = codePage == kCodePageAnsi || codePage == 1252;

  std::vector<char> buffer(length * 4 + 16);
  char* in = const_cast<char*>(data);
  size_t inLeft = length;
  char* outPtr = buffer.data();
  size_t outLeft = buffer.size();
  auto flushBuffer = [&]() {
    size_t produced = static_cast<size_t>(outPtr - buffer.data()) / 2;
    size_t base = out.size();
    out.resize(base + produced);
    std::memcpy(out.data() + base, buffer.data(), produced * 2);
    outPtr = buffer.data();
    outLeft = buffer.size();
  };
  while (inLeft > 0) {
    size_t rc = iconv(conv.get(), &in, &inLeft, &outPtr, &outLeft);
    if (rc != static_cast<size_t>(-1)) break;
    if (errno == E2BIG) {
      flushBuffer();
      continue;
    }
    flushBuffer();
    if (errno == EILSEQ) {
      // A byte without a mapping: the replacement character stands for it, and the rest goes on.
      uint8_t bad = static_cast<uint8_t>(*in);
      out.push_back(ansi1252 && IsCp1252Hole(bad) ? static_cast<char16_t>(bad) : u'\xFFFD');
      ++in;
      --inLeft;
      iconv(conv.get(), nullptr, nullptr, nullptr, nullptr);
    } else {
      // EINVAL: the text ends inside a multi-byte sequence.
      out.push_back(u'\xFFFD');
      break;
    }
  }
  iconv(conv.get(), nullptr, nullptr, &outPtr, &outLeft);
  flushBuffer();
  return true;
}

bool WideToCodePage(uint32_t codePage, WStringView text, std::string& out, bool* lossy) {
  out.clear();
  if (lossy != nullptr) *lossy = false;
  const char* name = IconvName(codePage);
  if (name == nullptr) return false;
  Converter conv(name, "UTF-16LE");
  if (!conv.ok()) return false;
  const bool ansi1252 = codePage == kCodePageAnsi || codePage == 1252;

  std::vector<char> buffer(text.size() * 4 + 16);
  char* in = reinterpret_cast<char*>(const_cast<char16_t*>(text.data()));
  size_t inLeft = text.size() * 2;
  char* outPtr = buffer.data();
  size_t outLeft = buffer.size();
  auto flushBuffer = [&]() {
    out.append(buffer.data(), static_cast<size_t>(outPtr - buffer.data()));
    outPtr = buffer.data();
    outLeft = buffer.size();
  };
  while (inLeft > 0) {
    size_t rc = iconv(conv.get(), &in, &inLeft, &outPtr, &outLeft);
    if (rc != static_cast<size_t>(-1)) break;
    if (errno == E2BIG) {
      flushBuffer();
      continue;
    }
    flushBuffer();
    // A character without a mapping (or a lone surrogate) becomes "?", as the Windows default
    // character does; a surrogate pair counts as one character.
    char16_t bad = 0;
    std::memcpy(&bad, in, 2);
    size_t skip = 2;
    if (bad >= 0xD800 && bad <= 0xDBFF && inLeft >= 4) {
      char16_t low = 0;
      std::memcpy(&low, in + 2, 2);
      if (low >= 0xDC00 && low <= 0xDFFF) skip = 4;
    }
    if (skip > inLeft) skip = inLeft;
    if (ansi1252 && IsCp1252Hole(bad)) {
      out.push_back(static_cast<char>(bad));
    } else {
      out.push_back('?');
      if (lossy != nullptr) *lossy = true;
    }
    in += skip;
    inLeft -= skip;
  }
  iconv(conv.get(), nullptr, nullptr, &outPtr, &outLeft);
  flushBuffer();
  return true;
}

}  // namespace platform
