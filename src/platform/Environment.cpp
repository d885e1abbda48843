#include "platform/Environment.h"

namespace platform {

WString ExpandEnvironment(WStringView text) {
  WString out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] == u'%') {
      size_t end = text.find(u'%', i + 1);
      if (end != WStringView::npos && end > i + 1) {
        WString value;
        if (GetEnv(text.substr(i + 1, end - i - 1), value)) {
          out += value;
          i = end + 1;
          continue;
        }
        // Unknown: keep the opening mark and go on from the closing one, which may open the next.
        out.append(text.substr(i, end - i));
        i = end;
        continue;
      }
    }
    out.push_back(text[i++]);
  }
  return out;
}

}  // namespace platform
