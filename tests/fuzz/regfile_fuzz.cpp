// The registry-file reader on any bytes: it must not fail on them, and what it read must come
// back the same from the written file, in either encoding.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/RegFile.h"

namespace {

bool SameContent(const platform::RegFile& a, const platform::RegFile& b) {
  if (a.keys.size() != b.keys.size()) return false;
  for (size_t k = 0; k < a.keys.size(); ++k) {
    const auto& ka = a.keys[k];
    const auto& kb = b.keys[k];
    if (ka.path != kb.path || ka.values.size() != kb.values.size()) return false;
    for (size_t v = 0; v < ka.values.size(); ++v) {
      const auto& va = ka.values[v];
      const auto& vb = kb.values[v];
      if (va.name != vb.name || va.type != vb.type || va.data != vb.data) return false;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  platform::RegFile file;
  if (!platform::ParseRegFile(bytes, file)) return 0;
  const bool readAsUtf16 = file.utf16;
  for (bool utf16 : {readAsUtf16, !readAsUtf16}) {
    // A key path or value name read from UTF-16 may hold a lone surrogate that UTF-8 cannot
    // carry (value data keeps its bytes as hex instead): only that one way may change a name.
    file.utf16 = utf16;
    const std::string written = platform::SerializeRegFile(file);
    platform::RegFile again;
    if (!platform::ParseRegFile(written, again)) std::abort();
    if (again.utf16 != utf16) std::abort();
    if ((utf16 || !readAsUtf16) && !SameContent(file, again)) std::abort();
    // Whatever came out must be stable: writing what was read back gives the same bytes.
    if (platform::SerializeRegFile(again) != written) std::abort();
  }
  return 0;
}
