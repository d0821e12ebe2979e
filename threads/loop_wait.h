// The library's own waits inside its loop functions. The public waitFor
// counts whole seconds, as its callers expect; the locks' refresh and its
// retries need sub-second waits that release the loop's mutex the same way.
#ifndef KORVEL_THREADS_LOOP_WAIT_H_
#define KORVEL_THREADS_LOOP_WAIT_H_

#include "korvel/threads.h"

namespace korvel_detail {

class LoopWait {
 public:
  // Waits once, releasing the loop's mutex, until woken or until `seconds`
  // have passed on hostMonotonic(). True when woken: a stop is pending.
  // REQUIRES: context is the one a koSynchronizedLoopThread<boost::timed_mutex>
  // hands its loop function.
  static bool waitFor(koSynchronizedLoopContext& context, double seconds);
};

}  // namespace korvel_detail

#endif  // KORVEL_THREADS_LOOP_WAIT_H_
