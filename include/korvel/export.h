// Symbol visibility of the public interface, and the language it needs.
// The library is built with hidden visibility; only declarations marked
// KORVEL_EXPORT are exported.
#ifndef KORVEL_EXPORT_H_
#define KORVEL_EXPORT_H_

// Each public header includes this one first and keeps its declarations
// under KORVEL_HEADERS_USABLE, so that an older language meets one error.
#if defined(__cplusplus) && __cplusplus >= 201703L
#define KORVEL_HEADERS_USABLE 1
#else
#define KORVEL_HEADERS_USABLE 0
#error "libkorvel's headers need C++17 or later: compile with -std=c++17 (or gnu++17)"
#endif

#define KORVEL_EXPORT __attribute__((visibility("default")))

#endif  // KORVEL_EXPORT_H_
