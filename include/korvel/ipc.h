// Named inter-process semaphores.
#ifndef KORVEL_IPC_H_
#define KORVEL_IPC_H_

#include "korvel/export.h"
#if KORVEL_HEADERS_USABLE

#include <semaphore.h>

#include <boost/noncopyable.hpp>
#include <cstdint>
#include <string>

// A POSIX named semaphore with an initial count of 1: separate processes
// exclude one another by agreeing on a name.
//
//   koSemaphoreIPC jobs("jobs/nightly", 0, false);   // system name "/jobs_nightly"
//   if (jobs.Open() && jobs.Acquire(false)) { ...; jobs.Release(); }
//
// No operation throws. False means the operation failed: LastError() holds
// the errno value that says why (errno itself may have changed while the
// message was written), and one numbered message went to standard error.
// The exceptions: TryAcquire on a taken semaphore returns false with
// LastError() EAGAIN and writes nothing; a timed Acquire that ran out has
// LastError() ETIMEDOUT (WaitTimedOut()); Open with an empty name, and
// Acquire, TryAcquire, Release or GetValue on an object that is not open,
// return false at once and write nothing (LastError() 0, or unchanged for
// Open and GetValue). One object belongs to one thread.
//
// The destructor closes the semaphore and unlinks its name (a held
// acquisition is not released): the next process to open the name gets a
// fresh semaphore, while processes still holding the old one keep it.
class KORVEL_EXPORT koSemaphoreIPC : private boost::noncopyable {
 public:
  // The system name is name with a leading "/" added when missing and every
  // later "/" turned into "_": "a/b" and "/a_b" name the same semaphore. An
  // empty name never opens. With shortenLongName, a name the system finds
  // too long loses characters after its slash until it is accepted. Opens
  // nothing.
  koSemaphoreIPC(std::string name, int timeOut, bool shortenLongName);
  ~koSemaphoreIPC();

  // Joins the semaphore of that name, or creates it. A semaphore that cannot
  // be opened for want of permission is taken for a dead owner's: its name
  // is unlinked and a new one created. True when open afterwards.
  bool Open();
  // Waits for the semaphore. A timed wait uses TimeOut() as an absolute
  // deadline in seconds since the epoch, so a small time-out means "only if
  // free now"; WaitTimedOut() then tells a time-out from other failures.
  bool Acquire(bool timed);
  // Takes the semaphore only if it is free; false (LastError() EAGAIN,
  // nothing written) when it is taken.
  bool TryAcquire();
  // Posts the semaphore, held or not: a release without an acquire raises
  // the count.
  bool Release();
  bool GetValue(int* value);

  int& TimeOut() { return timeOut_; }
  int LastError() const { return lastError_; }
  int& LastError() { return lastError_; }
  bool IsValid() const { return handle_ != nullptr; }
  bool WaitTimedOut() const;
  bool OwnsLock() const { return ownsLock_; }
  std::string Name() const { return name_; }

 private:
  void openShorteningIfAsked();

  std::string name_;
  int32_t timeOut_;
  bool ownsLock_ = false;
  bool shortenLongName_;
  sem_t* handle_ = nullptr;
  int32_t lastError_ = 0;
  int32_t initialValue_ = 1;
};

#endif  // KORVEL_HEADERS_USABLE
#endif  // KORVEL_IPC_H_
