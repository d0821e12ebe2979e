// Symbol visibility of the public interface. The library is built with
// hidden visibility; only declarations marked KORVEL_EXPORT are exported.
#ifndef KORVEL_EXPORT_H_
#define KORVEL_EXPORT_H_

#define KORVEL_EXPORT __attribute__((visibility("default")))

#endif  // KORVEL_EXPORT_H_
