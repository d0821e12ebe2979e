// Default message service: the catalogues added by the library, formatted
// with vsnprintf.
#include <cstdio>
#include <mutex>
#include <vector>

#include "host/host.h"

namespace {

std::mutex tablesMutex;
std::vector<const korvel_message_table*> tables;  // guarded by tablesMutex

// The text of identifier, or null when no table added so far has it.
const char* findText(int32_t identifier) {
  const uint32_t facility = static_cast<uint32_t>(identifier) >> 16;
  const uint32_t number = static_cast<uint32_t>(identifier) & 0xFFFF;
  std::lock_guard<std::mutex> lock(tablesMutex);
  for (const korvel_message_table* table : tables) {
    const uint16_t* pair = table->numbers;
    for (int32_t i = 0; i < table->count && pair[0] != 0xFFFF; ++i, pair += 2) {
      if (pair[0] == number && pair[1] == facility) return table->texts[i];
    }
  }
  return nullptr;
}

}  // namespace

extern "C" {

__attribute__((weak)) void* hostGetMemoryContext() {
  return nullptr;
}

__attribute__((weak)) void* hostGetMessageContext() {
  return nullptr;
}

__attribute__((weak)) int host_add_primary_message_table(void*, const korvel_message_table* table) {
  std::lock_guard<std::mutex> lock(tablesMutex);
  for (const korvel_message_table* known : tables) {
    if (known == table) return 0;
  }
  tables.push_back(table);
  return 0;
}

__attribute__((weak)) int host_vsprintm(void*, char* buffer, size_t size, int32_t identifier,
                                        va_list args) {
  const char* text = findText(identifier);
  if (text == nullptr || buffer == nullptr || size == 0) return 0;
  const int wanted = vsnprintf(buffer, size, text, args);
  if (wanted < 0) return wanted;
  // A longer message is cut: report what is in the buffer.
  return static_cast<size_t>(wanted) < size ? wanted : static_cast<int>(size - 1);
}

}  // extern "C"
