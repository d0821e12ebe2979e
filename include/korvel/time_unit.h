// Zentha::System::TimeUnit: the host's unit of time. Every time-out of the
// lock and loop interfaces is an unsigned long count with a TimeUnit;
// koForever means no limit.
#ifndef KORVEL_TIME_UNIT_H_
#define KORVEL_TIME_UNIT_H_

#include "korvel/export.h"
#if KORVEL_HEADERS_USABLE

namespace Zentha {
namespace System {

class KORVEL_EXPORT TimeUnit {
 public:
  static const TimeUnit& sSeconds();
  static const TimeUnit& sMilliseconds();

  // n units in milliseconds; wraps like unsigned arithmetic.
  unsigned long toMillis(unsigned long n) const;
  // n units in whole seconds, rounded down.
  unsigned long toSeconds(unsigned long n) const;

 private:
  explicit TimeUnit(unsigned long millisPerUnit) : millisPerUnit_(millisPerUnit) {}
  unsigned long millisPerUnit_;
};

}  // namespace System
}  // namespace Zentha

// The time-out without a limit, in any unit: lock.acquire(koForever, ...).
constexpr unsigned long koForever = static_cast<unsigned long>(-1);

#endif  // KORVEL_HEADERS_USABLE
#endif  // KORVEL_TIME_UNIT_H_
