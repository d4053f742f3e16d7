// Gives the kept inputs of a fuzz target to it once, without the fuzzer: in every build, with every
// compiler. Arguments: directories of inputs.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  int count = 0;
  for (int i = 1; i < argc; i++) {
    for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
      printf("%s\n", entry.path().filename().c_str());
      fflush(stdout);  // the last name is the one that broke something
      std::ifstream file(entry.path(), std::ios::binary);
      const std::string input{std::istreambuf_iterator<char>(file), {}};
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
      count++;
    }
  }
  printf("%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
