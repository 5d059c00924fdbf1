// Runs a fuzz target once on every file of the directories (or files) given:
// the corpus as an ordinary test, without the fuzzer.
#include <stdint.h>
#include <stdio.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; i++) {
    if (std::filesystem::is_directory(argv[i])) {
      for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
        if (entry.is_regular_file()) inputs.push_back(entry.path());
    } else {
      inputs.push_back(argv[i]);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  if (inputs.empty()) {
    fprintf(stderr, "no inputs\n");
    return 1;
  }
  for (const auto& input : inputs) {
    printf("%s\n", input.c_str());
    fflush(stdout);
    std::ifstream in(input, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  printf("%zu inputs replayed\n", inputs.size());
  return 0;
}
