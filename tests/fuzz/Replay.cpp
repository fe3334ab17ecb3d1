#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Replay FOLDER: hands the fuzz target that it is linked with each file below FOLDER, then 20,000 random inputs, the
/// same each time. So the properties are checked in the ordinary build too, where no fuzzer is.
int main(int argc, char** argv) {
  int count = 0;
  if (argc == 2) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[1])) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  std::mt19937 random(1);
  for (int i = 0; i < 20000; ++i) {
    std::vector<std::uint8_t> bytes(random() % (i % 8 == 0 ? 600 : 48));
    for (std::uint8_t& byte : bytes) byte = static_cast<std::uint8_t>(random());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("%d inputs replayed\n", count);
  return count > 0 ? 0 : 1;
}
