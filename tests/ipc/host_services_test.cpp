// The semaphore family inside a host that brings its own message service,
// with system failures injected through the host layer's semaphore calls.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "host/host.h"
#include "ipc/sem_messages.h"
#include "korvel/ipc.h"
#include "tests/support/process.h"

// ---- The host's services ----

namespace {

int memoryContext;
int messageContext;
int registrations = 0;
void* registeredWith = nullptr;
const korvel_message_table* registered = nullptr;

// Operations to fail, with the errno they fail with.
std::map<std::string, int> failures;
// hostSemOpen: refuse names longer than this with ENAMETOOLONG (0: never),
// and leave errno at ENAMETOOLONG after a success, as a system may.
size_t openNameLimit = 0;
std::vector<std::string> openedNames;

bool injected(const char* operation) {
  auto found = failures.find(operation);
  if (found == failures.end()) return false;
  errno = found->second;
  failures.erase(found);  // one failure per injection
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
  ++registrations;
  registeredWith = context;
  registered = table;
  return 0;
}

// Formats with a mark of its own, from the registered catalogue only.
extern "C" int host_vsprintm(void* context, char* buffer, size_t size, int32_t identifier,
                             va_list args) {
  if (context != &messageContext || registered == nullptr) return 0;
  for (int i = 0; i < registered->count; ++i) {
    if (((registered->numbers[2 * i + 1] << 16) | registered->numbers[2 * i]) != identifier) {
      continue;
    }
    const std::string format = std::string("[host] ") + registered->texts[i];
    const int n = vsnprintf(buffer, size, format.c_str(), args);
    return n < static_cast<int>(size) ? n : static_cast<int>(size) - 1;
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
  if (semaphore == SEM_FAILED) return nullptr;
  openedNames.push_back(name);
  if (openNameLimit != 0) errno = ENAMETOOLONG;
  return semaphore;
}

extern "C" int hostSemClose(sem_t* semaphore) {
  const int result = sem_close(semaphore);
  return injected("close") ? -1 : result;
}

extern "C" int hostSemUnlink(const char* name) {
  return injected("unlink") ? -1 : sem_unlink(name);
}

extern "C" int hostSemWait(sem_t* semaphore) {
  return injected("wait") ? -1 : sem_wait(semaphore);
}

extern "C" int hostSemTimedWait(sem_t* semaphore, const struct timespec* deadline) {
  return injected("timedwait") ? -1 : sem_timedwait(semaphore, deadline);
}

extern "C" int hostSemTryWait(sem_t* semaphore) {
  return injected("trywait") ? -1 : sem_trywait(semaphore);
}

extern "C" int hostSemPost(sem_t* semaphore) {
  return injected("post") ? -1 : sem_post(semaphore);
}

extern "C" int hostSemGetValue(sem_t* semaphore, int* value) {
  return injected("getvalue") ? -1 : sem_getvalue(semaphore, value);
}

namespace {

using korvel_test::captureStderr;

std::string uniqueName(const std::string& tag) {
  return "/korvel_host_test_" + std::to_string(getpid()) + "_" + tag;
}

TEST(SemMessages, CatalogueIsRegisteredWithTheHostOnTheFirstReportOnly) {
  {
    koSemaphoreIPC quiet(uniqueName("quiet"), 0, false);
    ASSERT_TRUE(quiet.Open());
    ASSERT_TRUE(quiet.Acquire(false));
    ASSERT_TRUE(quiet.Release());
  }
  EXPECT_EQ(registrations, 0) << "nothing reported, nothing registered";

  koSemaphoreIPC sem(uniqueName("reg"), 0, false);
  ASSERT_TRUE(sem.Open());
  failures["trywait"] = EINVAL;
  std::string err = captureStderr([&] { EXPECT_FALSE(sem.TryAcquire()); });
  EXPECT_EQ(registrations, 1);
  EXPECT_EQ(registeredWith, &memoryContext);
  EXPECT_EQ(err, "[host] Failed to lock, with trywait protocol, semaphore '" + sem.Name() +
                     "'. \n System error: Invalid argument\n");

  failures["post"] = EOVERFLOW;
  err = captureStderr([&] { EXPECT_FALSE(sem.Release()); });
  EXPECT_EQ(registrations, 1) << "registered once per process";
  EXPECT_NE(err.find("[host] Failed to release (increment) semaphore"), std::string::npos) << err;

  // The record the host reads.
  ASSERT_EQ(registered, &koSemMessageTable);
  EXPECT_EQ(registered->count, 15);
  EXPECT_EQ(registered->facility, 78);
  for (int i = 0; i < 15; ++i) {
    EXPECT_EQ(registered->numbers[2 * i], i + 1);
    EXPECT_EQ(registered->numbers[2 * i + 1], 78);
  }
  EXPECT_EQ(registered->numbers[30], 0xFFFF);
  EXPECT_EQ(registered->numbers[31], 0xFFFF);
  EXPECT_STREQ(registered->names[0], "KORVEL_SEM_NAME_TOO_LONG");
  EXPECT_STREQ(registered->names[14], "KORVEL_SYS_CALL_FAILED");
  EXPECT_STREQ(registered->texts[11],
               "Wait on semaphore '%s' abandonded because the owning process has terminated.");
  EXPECT_STREQ(registered->texts[14], "Call to system function '%s' failed.\n System error: %s");
  EXPECT_STREQ(registered->extra, "");
}

TEST(SemMessages, ReportsAreCutToTheBufferAndUnknownOnesDropped) {
  koSemMessageReporter reporter = {{}, true, nullptr};
  host_add_primary_message_table(nullptr, &koSemMessageTable);
  const std::string name(5000, 'x');
  std::string err = captureStderr([&] {
    EXPECT_EQ(koReportSemMessage(&reporter, stderr, KORVEL_SEM_WAIT_ABANDONED, name.c_str()), 2048);
  });
  EXPECT_EQ(err.size(), 2047u);
  EXPECT_EQ(err.back(), '\n');
  EXPECT_EQ(err.compare(0, 41, "[host] Wait on semaphore 'xxxxxxxxxxxxxxx"), 0)
      << err.substr(0, 60);
  EXPECT_TRUE(reporter.registered) << "the newline stayed inside the buffer";

  err = captureStderr([&] {
    EXPECT_EQ(koReportSemMessage(&reporter, stderr, (78 << 16) | 16, "x"), 1);
    EXPECT_EQ(koReportSemMessage(&reporter, stderr, KORVEL_SYS_CALL_FAILED, "fork", "busy"),
              static_cast<int>(strlen("[host] Call to system function 'fork' failed.\n System "
                                      "error: busy")) +
                  2);
  });
  EXPECT_EQ(err, "[host] Call to system function 'fork' failed.\n System error: busy\n");
}

// Each system failure: its errno recorded and exactly its line written.
TEST(SemFailures, EachFailureRecordsErrnoAndWritesItsLine) {
  struct Case {
    const char* operation;
    int error;
    const char* expected;  // %s: the semaphore's name; empty: silent
  };
  const Case cases[] = {
      {"wait", EINTR,
       "[host] Failed to lock semaphore '%s'. \n System error: Interrupted system call\n"},
      {"timedwait", EINVAL,
       "[host] Failed to lock semaphore '%s'. \n System error: Invalid argument\n"},
      {"trywait", EAGAIN, ""},
      {"getvalue", ENOSYS,
       "[host] sem_getvalue() is not implemented on this system. Could not get the value of "
       "semaphore '%s'. \n System error: Function not implemented\n"},
      {"getvalue", EINVAL,
       "[host] Failed to get the value of semaphore '%s'. \n System error: Invalid argument\n"},
      {"post", EOVERFLOW,
       "[host] Failed to release (increment) semaphore '%s'. \n System error: Value too large "
       "for defined data type\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.operation) + " " + strerror(c.error));
    koSemaphoreIPC sem(uniqueName(c.operation), 0, false);
    ASSERT_TRUE(sem.Open());
    ASSERT_TRUE(sem.Acquire(false));
    ASSERT_TRUE(sem.OwnsLock());
    failures[c.operation] = c.error;
    bool result = true;
    const std::string err = captureStderr([&] {
      const std::string op = c.operation;
      int value;
      if (op == "wait") result = sem.Acquire(false);
      if (op == "timedwait") result = sem.Acquire(true);
      if (op == "trywait") result = sem.TryAcquire();
      if (op == "getvalue") result = sem.GetValue(&value);
      if (op == "post") result = sem.Release();
    });
    EXPECT_FALSE(result);
    EXPECT_EQ(sem.LastError(), c.error);
    EXPECT_FALSE(sem.WaitTimedOut());
    std::string expected = c.expected;
    const size_t at = expected.find("%s");
    if (at != std::string::npos) expected.replace(at, 2, sem.Name());
    EXPECT_EQ(err, expected);
    EXPECT_EQ(sem.OwnsLock(), std::string(c.operation) != "post")
        << "a failed post still gives the lock up; failed waits leave it as it was";
    EXPECT_TRUE(failures.empty());
  }
}

TEST(SemFailures, DestructorReportsCloseAndUnlinkFailuresButNotMissingNames) {
  struct Case {
    const char* operation;
    int error;
    const char* expected;
  };
  const Case cases[] = {
      {"close", EIO,
       "[host] Failed to close semaphore '%s'. \n System error: Input/output error\n"},
      {"close", EINVAL, ""},
      {"unlink", EACCES,
       "[host] Failed to unlink (delete) semaphore '%s'. \n System error: Permission denied\n"},
      {"unlink", ENOENT, ""},
      {"unlink", EINVAL, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.operation) + " " + strerror(c.error));
    const std::string name = uniqueName("dtor");
    std::string expected = c.expected;
    const size_t at = expected.find("%s");
    if (at != std::string::npos) expected.replace(at, 2, name);
    const std::string err = captureStderr([&] {
      koSemaphoreIPC sem(name, 0, false);
      ASSERT_TRUE(sem.Open());
      failures[c.operation] = c.error;
    });
    EXPECT_EQ(err, expected);
    EXPECT_TRUE(failures.empty());
    sem_unlink(name.c_str());
  }
}

TEST(SemFailures, ForbiddenSemaphoreIsUnlinkedAndCreatedAfresh) {
  const std::string name = uniqueName("zombie");
  {
    koSemaphoreIPC sem(name, 0, false);
    failures["open"] = EACCES;
    const std::string err = captureStderr([&] { EXPECT_TRUE(sem.Open()); });
    EXPECT_EQ(err, "") << "a zombie taken over is not a failure";
    EXPECT_EQ(sem.LastError(), 0);
  }
  {
    koSemaphoreIPC sem(name, 0, false);
    failures["open"] = EACCES;
    failures["unlink"] = EPERM;
    const std::string err = captureStderr([&] { EXPECT_TRUE(sem.Open()); });
    EXPECT_EQ(err, "[host] Failed to unlink (delete) zombie semaphore '" + name +
                       "'. \n System error: Operation not permitted\n");
    EXPECT_EQ(sem.LastError(), EPERM) << "kept although the second attempt opened";
  }
  {
    // Other errors get a second attempt but no unlink.
    koSemaphoreIPC sem(name, 0, false);
    failures["open"] = EMFILE;
    failures["unlink"] = EPERM;
    EXPECT_EQ(captureStderr([&] { EXPECT_TRUE(sem.Open()); }), "");
    failures.clear();
  }
}

TEST(SemFailures, ShorteningErasesFromTheFrontAndOneTooManyAfterSuccess) {
  // The host refuses names over 12 characters and leaves ENAMETOOLONG in
  // errno after a success: the stored name loses one character more than
  // the name opened.
  openNameLimit = 12;
  openedNames.clear();
  koSemaphoreIPC sem("abcdefghijklmnop", 0, true);
  ASSERT_EQ(sem.Name(), "/abcdefghijklmnop");
  EXPECT_EQ(captureStderr([&] { EXPECT_TRUE(sem.Open()); }), "");
  ASSERT_EQ(openedNames, std::vector<std::string>{"/fghijklmnop"});
  EXPECT_EQ(sem.Name(), "/ghijklmnop");
  openNameLimit = 0;
  sem_unlink("/fghijklmnop");

  koSemaphoreIPC refused("abcdefghijklmnop", 0, false);
  openNameLimit = 12;
  const std::string err = captureStderr([&] { EXPECT_FALSE(refused.Open()); });
  openNameLimit = 0;
  EXPECT_EQ(err,
            "[host] Failed to open semaphore '/abcdefghijklmnop'. \n System error: File name "
            "too long\n");
  EXPECT_EQ(refused.Name(), "/abcdefghijklmnop");
}

}  // namespace
