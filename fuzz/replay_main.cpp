// Runs a fuzz target once over each input that is kept, without a fuzzer.
//
// The arguments are inputs or folders of inputs. The empty input always comes first: it needs no
// file, and a parser that never saw it is the first thing a fuzzer finds. A folder that does not
// exist counts as empty, so a new target needs no corpus. A failure is a crash, whose report is
// preceded by the name of the input.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::recursive_directory_iterator(argv[i])) {
        if (entry.is_regular_file()) inputs.push_back(entry.path());
      }
    } else if (fs::exists(argv[i])) {
      inputs.emplace_back(argv[i]);
    }
  }
  std::sort(inputs.begin(), inputs.end());

  LLVMFuzzerTestOneInput(nullptr, 0);
  for (const fs::path& input : inputs) {
    std::fprintf(stderr, "%s\n", input.c_str());
    std::ifstream file(input, std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "cannot be read\n");
      return 1;
    }
    // Exactly as long as the input: a read past its end is one past the allocation.
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    bytes.shrink_to_fit();
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs\n", inputs.size() + 1);
  return 0;
}
