// Replays fuzzer inputs through a target's entry point without libFuzzer, so
// that the ordinary test builds (ASan+UBSan, TSan) run every kept input: the
// regression inputs of crashes once found and the merged corpus. Arguments
// are files or folders (a missing folder counts as empty). A broken invariant
// traps, which fails the test.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    fs::path path(argv[i]);
    std::error_code error;
    if (fs::is_directory(path, error)) {
      for (const auto& entry : fs::directory_iterator(path)) {
        if (entry.is_regular_file()) inputs.push_back(entry.path());
      }
    } else if (fs::is_regular_file(path, error)) {
      inputs.push_back(path);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  for (const auto& path : inputs) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                            std::istreambuf_iterator<char>());
    // A replay that dies names its input first.
    std::fprintf(stderr, "replaying %s\n", path.c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu inputs\n", inputs.size());
  return 0;
}
