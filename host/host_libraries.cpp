// Default shared-library services, on the dynamic linker.
#include <dlfcn.h>

#include "host/host.h"

extern "C" {

__attribute__((weak)) void* hostLoadLibrary(const char* path, int* status) {
  void* library = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
  if (status != nullptr) *status = library != nullptr ? 0 : 1;
  return library;
}

__attribute__((weak)) void* hostFindSymbolInLibrary(void* library, const char* symbol) {
  return dlsym(library, symbol);
}

__attribute__((weak)) void hostUnloadLibrary(void* library) {
  if (library != nullptr) dlclose(library);
}

}  // extern "C"
