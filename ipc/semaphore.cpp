// koSemaphoreIPC: every system call goes through the host layer; every
// failure is reported through the semaphore message catalogue.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/host.h"
#include "ipc/sem_messages.h"
#include "korvel/ipc.h"

namespace {

// Longest name accepted without a report. Longer names are still tried:
// the system has the last word.
constexpr int kMaxNameLength = 4353;

// The text of an error number, for one report. strerror_r (the GNU form,
// which returns the text), because strerror may share one buffer among
// threads.
struct ErrorText {
  explicit ErrorText(int error) : text(strerror_r(error, buffer, sizeof buffer)) {}
  char buffer[256];
  const char* text;
};

}  // namespace

koSemaphoreIPC::koSemaphoreIPC(std::string name, int timeOut, bool shortenLongName)
    : timeOut_(timeOut), shortenLongName_(shortenLongName) {
  if (name.empty()) return;
  if (name[0] != '/') name_ = "/";
  name_ += name;
  for (size_t i = 1; i < name_.size(); ++i) {
    if (name_[i] == '/') name_[i] = '_';
  }
}

koSemaphoreIPC::~koSemaphoreIPC() {
  lastError_ = 0;
  if (handle_ == nullptr) return;
  errno = 0;
  if (hostSemClose(handle_) != 0 && errno != EINVAL) {
    lastError_ = errno;
    koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_CLOSE_FAILED, name_.c_str(),
                       ErrorText(lastError_).text);
  }
  if (hostSemUnlink(name_.c_str()) != 0 && errno != ENOENT && errno != EINVAL) {
    lastError_ = errno;
    koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_UNLINK_FAILED, name_.c_str(),
                       ErrorText(lastError_).text);
  }
}

void koSemaphoreIPC::openShorteningIfAsked() {
  // The stored name stays the one that was opened: the destructor unlinks it.
  for (;;) {
    handle_ = hostSemOpen(name_.c_str(), O_CREAT, 0666, static_cast<unsigned>(initialValue_));
    if (handle_ != nullptr || !shortenLongName_ || errno != ENAMETOOLONG || name_.size() <= 2) {
      return;
    }
    name_.erase(1, 1);
  }
}

bool koSemaphoreIPC::Open() {
  if (name_.empty()) return handle_ != nullptr;
  if (handle_ != nullptr) return true;
  if (name_.size() > static_cast<size_t>(kMaxNameLength)) {
    koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_NAME_TOO_LONG, name_.c_str(),
                       static_cast<int>(name_.size()), kMaxNameLength);
  }

  openShorteningIfAsked();
  if (handle_ != nullptr) return true;
  if (errno == EACCES) {
    // Left by an owner we may not use: take the name over.
    if (hostSemUnlink(name_.c_str()) != 0 && errno != ENOENT && errno != EINVAL) {
      lastError_ = errno;
      koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_UNLINK_ZOMBIE_FAILED, name_.c_str(),
                         ErrorText(lastError_).text);
    }
  }

  openShorteningIfAsked();
  if (handle_ != nullptr) return true;
  lastError_ = errno;
  koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_OPEN_FAILED, name_.c_str(),
                     ErrorText(lastError_).text);
  return false;
}

bool koSemaphoreIPC::Acquire(bool timed) {
  lastError_ = 0;
  if (handle_ == nullptr) return false;
  int result;
  if (timed) {
    // The time-out is the deadline itself, not an interval from now.
    const struct timespec deadline = {timeOut_, 0};
    result = hostSemTimedWait(handle_, &deadline);
  } else {
    result = hostSemWait(handle_);
  }
  if (result == 0) {
    ownsLock_ = true;
    return true;
  }
  lastError_ = errno;
  if (lastError_ == ETIMEDOUT) {
    koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_WAIT_TIMED_OUT, name_.c_str(),
                       static_cast<int>(timeOut_));
  } else {
    // An interrupted wait is a failure too; the caller may try again.
    koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_WAIT_FAILED, name_.c_str(),
                       ErrorText(lastError_).text);
  }
  return false;
}

bool koSemaphoreIPC::TryAcquire() {
  lastError_ = 0;
  if (handle_ == nullptr) return false;
  if (hostSemTryWait(handle_) == 0) {
    ownsLock_ = true;
    return true;
  }
  lastError_ = errno;
  if (lastError_ != EAGAIN) {
    koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_TRYWAIT_FAILED, name_.c_str(),
                       ErrorText(lastError_).text);
  }
  return false;
}

bool koSemaphoreIPC::Release() {
  lastError_ = 0;
  if (handle_ == nullptr) return false;
  const bool posted = hostSemPost(handle_) == 0;
  if (!posted) {
    lastError_ = errno;
    koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_POST_FAILED, name_.c_str(),
                       ErrorText(lastError_).text);
  }
  ownsLock_ = false;
  return posted;
}

bool koSemaphoreIPC::GetValue(int* value) {
  if (handle_ == nullptr) return false;
  if (hostSemGetValue(handle_, value) == 0) return true;
  lastError_ = errno;
  koReportSemMessage(
      &koSemReporter, stderr,
      lastError_ == ENOSYS ? KORVEL_SEM_GETVALUE_NOT_IMPLEMENTED : KORVEL_SEM_GETVALUE_FAILED,
      name_.c_str(), ErrorText(lastError_).text);
  return false;
}

bool koSemaphoreIPC::WaitTimedOut() const {
  return lastError_ == ETIMEDOUT;
}
