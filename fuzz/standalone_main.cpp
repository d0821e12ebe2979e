// Runs a fuzz target without libFuzzer: over the files named on the command
// line, or over random inputs (--random N [SEED]) drawn mostly from the
// characters that matter to paths.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int runFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    fprintf(stderr, "cannot read %s\n", path);
    return 1;
  }
  const std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  return 0;
}

int runRandom(long count, unsigned seed) {
  static const char kAlphabet[] = "/./..//\\~abc x*\t\n";
  std::mt19937 random(seed);
  for (long i = 0; i < count; ++i) {
    std::string input;
    // Mostly short inputs, some near and beyond the path buffer sizes.
    const size_t length = random() % 10 == 0 ? random() % 9000 : random() % 64;
    for (size_t j = 0; j < length; ++j) {
      input += random() % 16 == 0 ? static_cast<char>(random() % 256)
                                  : kAlphabet[random() % (sizeof kAlphabet - 1)];
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  }
  printf("%ld random inputs, seed %u: no failure\n", count, seed);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], "--random") == 0) {
    return runRandom(atol(argv[2]), argc > 3 ? static_cast<unsigned>(atol(argv[3])) : 1);
  }
  int failures = 0;
  for (int i = 1; i < argc; ++i) failures += runFile(argv[i]);
  return failures == 0 ? 0 : 1;
}
