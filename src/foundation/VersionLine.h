// The grammar of a repository version line (versionAll.txt, versionLeaf.txt): one parser, two
// entry points. The tolerant one serves readers that accept the short and the four-field forms of
// versionLeaf.txt; the strict one serves versionAll.txt, whose lines must be full.
#pragma once

#include <cstdint>

#include "base/WString.h"

// One version line's fields. The parser resets them for every line that is no comment.
struct VersionLineInfo {
  WString leafRelPath;
  int32_t leafVersion = -99;
  WString leafExeFile;
  int64_t leafExeFileSize = -1;
  char16_t leafType = u' ';
  WString commonLeaf;
  int32_t commonVersion = -99;
  int32_t oldVersion = -99;
};

namespace versionline {

constexpr int kFull = 0;
constexpr int kSyntaxError = -1;
constexpr int kComment = -2;
constexpr int kShort = -3;       // fields 1 and 2 valid: the form a package brings along
constexpr int kFourFields = -4;  // fields 1 to 4 valid: the older information form

// Line buffers of the readers, in characters: a longer line reaches the parser in pieces.
constexpr size_t kVersionLineChars = 1559;

// 0 full, -1 syntax error, -2 comment (the fields stay untouched), -3 short, -4 four fields.
int Parse(const WString& line, VersionLineInfo& info);
// As Parse, but a short or four-field line is a syntax error.
int ParseStrict(const WString& line, VersionLineInfo& info);

}  // namespace versionline
