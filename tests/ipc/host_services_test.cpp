// The semaphore family inside a host that brings its own message service,
// with system failures injected through the host layer's semaphore calls.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "host/host.h"
#include "ipc/sem_messages.h"
#include "korvel/ipc.h"
#include "tests/support/process.h"

// ---- The host's services ----

namespace {

int memoryContext;
int messageContext;
int registrations = 0;
const korvel_message_table* registered = nullptr;

// Operations to fail, with the errno they fail with; one failure each.
std::map<std::string, int> failures;
// hostSemOpen refuses names longer than this with ENAMETOOLONG (0: never),
// and then leaves errno at ENAMETOOLONG after a success, as a system may.
size_t openNameLimit = 0;

bool injected(const char* operation) {
  auto found = failures.find(operation);
  if (found == failures.end()) return false;
  errno = found->second;
  failures.erase(found);
  return true;
}

}  // namespace

extern "C" void* hostGetMemoryContext() {
  return &memoryContext;
}

extern "C" void* hostGetMessageContext() {
  return &messageContext;
}

extern "C" int host_add_primary_message_table(void* context, const korvel_message_table* table) {
  registrations += context == &memoryContext ? 1 : 100;
  registered = table;
  return 0;
}

// Formats with a mark of its own, from the registered catalogue only.
extern "C" int host_vsprintm(void* context, char* buffer, size_t size, int32_t identifier,
                             va_list args) {
  if (context != &messageContext || registered == nullptr) return 0;
  for (int i = 0; i < registered->count; ++i) {
    if (((registered->numbers[2 * i + 1] << 16) | registered->numbers[2 * i]) == identifier) {
      const std::string format = std::string("[host] ") + registered->texts[i];
      const int n = vsnprintf(buffer, size, format.c_str(), args);
      return n < static_cast<int>(size) ? n : static_cast<int>(size) - 1;
    }
  }
  return 0;
}

extern "C" sem_t* hostSemOpen(const char* name, int flags, unsigned mode, unsigned value) {
  if (injected("open")) return nullptr;
  if (openNameLimit != 0 && strlen(name) > openNameLimit) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  sem_t* semaphore = sem_open(name, flags, static_cast<mode_t>(mode), value);
  if (semaphore != SEM_FAILED && openNameLimit != 0) errno = ENAMETOOLONG;
  return semaphore != SEM_FAILED ? semaphore : nullptr;
}

extern "C" int hostSemClose(sem_t* semaphore) {
  const int result = sem_close(semaphore);  // closed all the same
  return injected("close") ? -1 : result;
}

// A semaphore call that fails once, with the chosen errno, when injected.
#define INJECTABLE(Name, key, Parameters, call) \
  extern "C" int Name Parameters {              \
    return injected(key) ? -1 : call;           \
  }
INJECTABLE(hostSemUnlink, "unlink", (const char* name), sem_unlink(name))
INJECTABLE(hostSemTimedWait, "timedwait", (sem_t * s, const struct timespec* t),
           sem_timedwait(s, t))
INJECTABLE(hostSemTryWait, "trywait", (sem_t * s), sem_trywait(s))
INJECTABLE(hostSemPost, "post", (sem_t * s), sem_post(s))
INJECTABLE(hostSemGetValue, "getvalue", (sem_t * s, int* value), sem_getvalue(s, value))

namespace {

using korvel_test::captureStderr;

std::string uniqueName(const std::string& tag) {
  return "/korvel_host_test_" + std::to_string(getpid()) + "_" + tag;
}

TEST(SemMessages, CatalogueGoesToTheHostOnceAtTheFirstReport) {
  {
    koSemaphoreIPC quiet(uniqueName("quiet"), 0, false);
    ASSERT_TRUE(quiet.Open() && quiet.Acquire(false) && quiet.Release());
  }
  EXPECT_EQ(registrations, 0) << "nothing reported, nothing registered";
  koSemaphoreIPC sem(uniqueName("reg"), 0, false);
  ASSERT_TRUE(sem.Open());
  failures["trywait"] = EINVAL;
  EXPECT_EQ(captureStderr([&] { EXPECT_FALSE(sem.TryAcquire()); }),
            "[host] Failed to lock, with trywait protocol, semaphore '" + sem.Name() +
                "'. \n System error: Invalid argument\n");
  EXPECT_EQ(registrations, 1) << "once per process, with the host's memory context";

  // The record the host reads; the default message service checks the
  // (number, facility) pairs of every message the other suite reports.
  ASSERT_EQ(registered, &koSemMessageTable);
  EXPECT_EQ(registered->count, 15);
  EXPECT_EQ(registered->facility, 78);
  EXPECT_EQ(registered->numbers[2 * 15] & registered->numbers[2 * 15 + 1], 0xFFFF);
  EXPECT_STREQ(registered->texts[11],
               "Wait on semaphore '%s' abandonded because the owning process has terminated.");

  // Reports are cut to the reporter's buffer; unknown ones are dropped.
  koSemMessageReporter reporter = {{}, true, nullptr};
  const std::string name(5000, 'x');
  std::string err = captureStderr([&] {
    EXPECT_EQ(koReportSemMessage(&reporter, stderr, KORVEL_SEM_WAIT_ABANDONED, name.c_str()), 2048);
  });
  EXPECT_EQ(err, "[host] Wait on semaphore '" + name.substr(0, 2046 - 26) + "\n");
  EXPECT_TRUE(reporter.registered) << "the newline and the NUL stayed inside the buffer";
  EXPECT_EQ(captureStderr(
                [&] { EXPECT_EQ(koReportSemMessage(&reporter, stderr, (78 << 16) | 16, "x"), 1); }),
            "");
}

// Each system failure: its errno recorded and exactly its line written.
TEST(SemFailures, EachFailureRecordsErrnoAndWritesItsLine) {
  struct Case {
    const char* op;
    int error;
    const char* text;  // %s: the semaphore's name; empty: nothing is written
  };
  const Case cases[] = {
      {"timedwait", EINVAL, "Failed to lock semaphore '%s'. \n System error: Invalid argument"},
      {"getvalue", ENOSYS,
       "sem_getvalue() is not implemented on this system. Could not get the value of semaphore "
       "'%s'. \n System error: Function not implemented"},
      {"getvalue", EINVAL,
       "Failed to get the value of semaphore '%s'. \n System error: Invalid argument"},
      {"post", EOVERFLOW,
       "Failed to release (increment) semaphore '%s'. \n System error: Value too large for "
       "defined data type"},
      // The destructor: a semaphore already closed, or a name already gone,
      // is no failure.
      {"close", EIO, "Failed to close semaphore '%s'. \n System error: Input/output error"},
      {"close", EINVAL, ""},
      {"unlink", EACCES,
       "Failed to unlink (delete) semaphore '%s'. \n System error: Permission denied"},
      {"unlink", ENOENT, ""},
      {"unlink", EINVAL, ""}};
  for (const Case& c : cases) {
    const std::string op = c.op;
    SCOPED_TRACE(op + " " + strerror(c.error));
    auto sem = std::make_unique<koSemaphoreIPC>(uniqueName(op), 0, false);
    ASSERT_TRUE(sem->Open() && sem->Acquire(false));
    const std::string name = sem->Name();
    failures[op] = c.error;
    const std::string err = captureStderr([&] {
      int value;
      EXPECT_FALSE(op == "timedwait"  ? sem->Acquire(true)
                   : op == "getvalue" ? sem->GetValue(&value)
                   : op == "post"     ? sem->Release()
                                      : (sem.reset(), false));
    });
    if (sem != nullptr) {
      EXPECT_EQ(sem->LastError(), c.error);
      EXPECT_EQ(sem->OwnsLock(), op != "post") << "a failed post gives the lock up all the same";
    }
    std::string expected = c.text;
    if (!expected.empty())
      expected = "[host] " + expected.replace(expected.find("%s"), 2, name) + "\n";
    EXPECT_EQ(err, expected);
    sem_unlink(name.c_str());
  }
  EXPECT_EQ(registrations, 1) << "the catalogue goes to the host once per process";
}

TEST(SemFailures, ForbiddenSemaphoreIsUnlinkedAndCreatedAfresh) {
  koSemaphoreIPC sem(uniqueName("zombie"), 0, false);
  failures["open"] = EACCES;
  failures["unlink"] = EPERM;
  EXPECT_EQ(captureStderr([&] { EXPECT_TRUE(sem.Open()); }),
            "[host] Failed to unlink (delete) zombie semaphore '" + sem.Name() +
                "'. \n System error: Operation not permitted\n");
  EXPECT_EQ(sem.LastError(), EPERM) << "kept though the second open worked";
}

TEST(SemFailures, ShorteningErasesFromTheFrontAndKeepsTheNameOpened) {
  // The host refuses names over 12 characters and leaves ENAMETOOLONG in
  // errno after a success; the name kept, and unlinked at the end, is still
  // the one opened.
  openNameLimit = 12;
  {
    koSemaphoreIPC sem("abcdefghijklmnop", 0, true);
    EXPECT_EQ(captureStderr([&] { EXPECT_TRUE(sem.Open()); }), "");
    EXPECT_EQ(sem.Name(), "/fghijklmnop");
  }
  EXPECT_NE(sem_unlink("/fghijklmnop"), 0) << "the destructor left the semaphore behind";
  koSemaphoreIPC refused("abcdefghijklmnop", 0, false);
  EXPECT_EQ(captureStderr([&] { EXPECT_FALSE(refused.Open()); }),
            "[host] Failed to open semaphore '/abcdefghijklmnop'. \n System error: File name too "
            "long\n");
  openNameLimit = 0;
}

}  // namespace
