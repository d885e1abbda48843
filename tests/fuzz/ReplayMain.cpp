// Replays fuzz inputs through a target without libFuzzer: each argument is a file or a directory
// of files, each file one input. The test command replays the committed corpora this way in the
// sanitizer build; scripts/fuzz.sh builds the same targets with libFuzzer to search for more.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool RunFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.string().c_str());
    return false;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path arg(argv[i]);
    if (std::filesystem::is_directory(arg)) {
      std::vector<std::filesystem::path> files;
      for (const auto& entry : std::filesystem::directory_iterator(arg))
        if (entry.is_regular_file()) files.push_back(entry.path());
      std::sort(files.begin(), files.end());
      for (const auto& f : files) {
        if (!RunFile(f)) return 2;
        ++inputs;
      }
    } else {
      if (!RunFile(arg)) return 2;
      ++inputs;
    }
  }
  if (inputs == 0) {
    std::fprintf(stderr, "no inputs\n");
    return 2;
  }
  std::printf("%zu inputs replayed\n", inputs);
  return 0;
}
