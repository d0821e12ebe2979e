// Fuzz target for the path functions that write into caller buffers. Every
// buffer is a heap block of exactly the documented size, so a write one byte
// too far is caught by AddressSanitizer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "host/host.h"
#include "korvel/paths.h"

namespace {

std::unique_ptr<char[]> copyOf(const std::string& text, size_t extra) {
  std::unique_ptr<char[]> buffer(new char[text.size() + 1 + extra]);
  memcpy(buffer.get(), text.c_str(), text.size() + 1);
  return buffer;
}

void require(bool condition) {
  if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 3 * KORVEL_PATH_BUFFER_SIZE) return 0;
  const std::string raw(reinterpret_cast<const char*>(data), size);
  const std::string path = raw.substr(0, raw.find('\0'));  // a C string ends at its NUL

  // Collapsing: into a separate buffer and in place must agree.
  std::unique_ptr<char[]> collapsed(new char[path.size() + 1]);
  koCollapsePath(collapsed.get(), path.c_str(), path.size());
  require(strlen(collapsed.get()) <= path.size());
  std::unique_ptr<char[]> inPlace = copyOf(path, 0);
  koCollapsePath(inPlace.get(), inPlace.get(), path.size());
  require(strcmp(collapsed.get(), inPlace.get()) == 0);
  // A prefix only: n smaller than the string.
  const size_t n = path.size() / 2;
  std::unique_ptr<char[]> half(new char[n + 1]);
  koCollapsePath(half.get(), path.c_str(), n);
  require(strlen(half.get()) <= n);

  // Canonical form within a small and a large bound.
  for (size_t outSize : {size_t{8}, path.size() + 64}) {
    std::unique_ptr<char[]> out(new char[outSize + 1]);
    const char* result = koCanonicalizePath(out.get(), outSize, path.c_str(), path.size());
    require(result != nullptr);
    if (result == out.get()) require(strlen(out.get()) <= outSize);
  }

  std::unique_ptr<char[]> washed = copyOf(path, 0);
  koWashPathSep(washed.get());
  require(strchr(washed.get(), '\\') == nullptr);

  std::unique_ptr<char[]> withSep = copyOf(path, 1);
  require(koAddPathSep(withSep.get()));
  require(withSep[strlen(withSep.get()) - 1] == '/');

  std::unique_ptr<char[]> dir(new char[path.size() + 2]);
  const char* name = hpSeparatePathName(path.c_str(), dir.get());
  require(name != nullptr && name >= path.c_str() && name <= path.c_str() + path.size());
  return 0;
}
