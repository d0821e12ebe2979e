// Finding the files of the modules loaded in this process.
#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/host.h"
#include "korvel/paths.h"

namespace {

// The permissions column of an executable, private, readable mapping; its
// pathname is the fourth token after it (offset, device, inode, path).
const char kExecutableMapping[] = "r-xp";
constexpr int kTokensToPath = 4;

constexpr int kInFileName = 8;       // name lies in the file-name component
constexpr int kAtFileNameStart = 8;  // ... and the file name begins with it

}  // namespace

bool koGetCurrentModulePath(void* address, char* buffer, unsigned long size) {
  if (buffer == nullptr || size == 0) return true;
  memset(buffer, 0, size);
  Dl_info info;
  if (dladdr(address, &info) != 0 && info.dli_fname != nullptr) {
    strncpy(buffer, info.dli_fname, size - 1);
  }
  return true;
}

char* koGetLoadedModuleFullPath(char* output, const char* name, const char** symbols,
                                unsigned long symbolCount) {
  koLoadedModuleNameChecker checker(name, output, symbols, symbols != nullptr ? symbolCount : 0);
  char mapsPath[64];
  snprintf(mapsPath, sizeof mapsPath, "/proc/%d/maps", static_cast<int>(hostProcessId()));
  const koLoadedModuleListIterator end(mapsPath, koLoadedModuleListIterator::END, nullptr);
  for (koLoadedModuleListIterator module(mapsPath, 0, nullptr); module != end; ++module) {
    if (checker(*module)) break;
  }
  return checker.result();
}

koStringPredicate::~koStringPredicate() = default;

koLoadedModuleNameChecker::koLoadedModuleNameChecker(const char* name, char* output,
                                                     const char** symbols,
                                                     unsigned long symbolCount)
    : name_(name), output_(output), symbols_(symbols), symbolCount_(symbolCount) {}

bool koLoadedModuleNameChecker::operator()(const char* path) {
  char resolved[KORVEL_PATH_BUFFER_SIZE > PATH_MAX ? KORVEL_PATH_BUFFER_SIZE : PATH_MAX];
  const char* p = hostRealpath(path, resolved) != nullptr ? resolved : path;

  const char* hit = nullptr;
  if (name_ != nullptr) {
    hit = strstr(p, name_);
    if (hit == nullptr && *name_ != '\0') return false;
  }

  if (symbolCount_ > 0) {
    int status = 0;
    void* library = hostLoadLibrary(p, &status);
    if (library == nullptr) return false;
    for (unsigned long i = 0; i < symbolCount_; ++i) {
      if (hostFindSymbolInLibrary(library, symbols_[i]) == nullptr) {
        libraryFlag_ = false;
        hostUnloadLibrary(library);
        return false;
      }
    }
    libraryFlag_ = false;
    hostUnloadLibrary(library);
  }

  int score = libraryFlag_ ? 0 : 1;
  if (hit != nullptr && strchr(hit, '/') == nullptr) {
    score += kInFileName;
    if (hit == p || hit[-1] == '/') {
      strcpy(output_, p);  // NOLINT: output has room for a full path
      result_ = output_;
      bestScore_ = score + kAtFileNameStart;
      return true;
    }
  }
  if (score > bestScore_) {
    strcpy(output_, p);  // NOLINT: output has room for a full path
    result_ = output_;
    bestScore_ = score;
  }
  return false;
}

koLoadedModuleListIterator::koLoadedModuleListIterator(const char* mapsPath, int index,
                                                       FILE* stream) {
  snprintf(format_, sizeof format_, "%%%ds", KORVEL_PATH_BUFFER_SIZE);
  if (index == END || index < 0) {
    position_ = END;
    return;
  }
  if (stream != nullptr) {
    stream_.reset(stream, [](FILE*) {});  // the caller's
  } else {
    stream_.reset(fopen(mapsPath, "r"), [](FILE* f) {
      if (f != nullptr) fclose(f);
    });
  }
  do {
    readNext();
  } while (position_ != END && position_ < index);
}

koLoadedModuleListIterator& koLoadedModuleListIterator::operator++() {
  if (position_ != END) readNext();
  return *this;
}

void koLoadedModuleListIterator::readNext() {
  if (!stream_ || stream_.get() == nullptr) {
    position_ = END;
    return;
  }
  std::unique_ptr<char[]> token(new char[KORVEL_PATH_BUFFER_SIZE + 1]);
  int countdown = 0;
  while (fscanf(stream_.get(), format_, token.get()) == 1) {
    if (countdown > 0) {
      if (--countdown == 0) {
        current_ = token.get();
        ++position_;
        return;
      }
    } else if (strcmp(token.get(), kExecutableMapping) == 0) {
      countdown = kTokensToPath;
    }
  }
  position_ = END;
  current_.clear();
}
