#include "platform/Process.h"

namespace platform {

// Both builds split a command line by Windows' rules: the POSIX side turns it into the argument
// vector, and the tests hold the two builds to the same cases.

namespace {
bool IsBlank(char16_t c) {
  return c == u' ' || c == u'\t';
}
}  // namespace

std::vector<WString> SplitCommandLine(WStringView line) {
  std::vector<WString> words;
  size_t i = 0;
  const size_t n = line.size();
  while (i < n && IsBlank(line[i])) ++i;
  if (i == n) return words;

  // The program name: quotes group and vanish, backslashes are plain characters (a path such as
  // "C:\dir\" must survive whole).
  WString word;
  bool quoted = false;
  for (; i < n && (quoted || !IsBlank(line[i])); ++i) {
    if (line[i] == u'"') {
      quoted = !quoted;
    } else {
      word += line[i];
    }
  }
  words.push_back(word);

  // The arguments: 2n backslashes before a quote give n backslashes and the quote groups; 2n+1
  // give n backslashes and a literal quote; "" inside a quoted part gives one literal quote and the
  // part goes on (the rule of the C runtime since 2008).
  for (;;) {
    while (i < n && IsBlank(line[i])) ++i;
    if (i == n) break;
    word.clear();
    quoted = false;
    while (i < n && (quoted || !IsBlank(line[i]))) {
      size_t backslashes = 0;
      while (i < n && line[i] == u'\\') {
        ++backslashes;
        ++i;
      }
      if (i < n && line[i] == u'"') {
        word.append(backslashes / 2, u'\\');
        if (backslashes % 2 == 1) {
          word += u'"';
          ++i;
        } else if (quoted && i + 1 < n && line[i + 1] == u'"') {
          word += u'"';
          i += 2;
        } else {
          quoted = !quoted;
          ++i;
        }
      } else {
        word.append(backslashes, u'\\');
        if (i < n && (quoted || !IsBlank(line[i]))) word += line[i++];
      }
    }
    words.push_back(word);
  }
  return words;
}

}  // namespace platform
