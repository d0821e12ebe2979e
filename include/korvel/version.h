// Version data of the library, fixed when it was built.
#ifndef KORVEL_VERSION_H_
#define KORVEL_VERSION_H_

#include "korvel/export.h"
#if KORVEL_HEADERS_USABLE

extern "C" {
// Dotted four-part version, e.g. "1.0.0.0".
KORVEL_EXPORT extern const char libkorvel_version[];
// The compiler's date of the build: "Mmm dd yyyy".
KORVEL_EXPORT extern const char libkorvel_build_date[];
}

#endif  // KORVEL_HEADERS_USABLE
#endif  // KORVEL_VERSION_H_
