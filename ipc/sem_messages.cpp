#include "ipc/sem_messages.h"

#include <cstdarg>

namespace {

constexpr int32_t kFacility = 78;

const uint16_t kNumbers[] = {1, 78, 2,  78, 3,  78, 4,  78, 5,  78, 6,  78, 7,  78, 8,      78,
                             9, 78, 10, 78, 11, 78, 12, 78, 13, 78, 14, 78, 15, 78, 0xFFFF, 0xFFFF};

const char* const kNames[] = {
    "KORVEL_SEM_NAME_TOO_LONG",
    "KORVEL_SEM_OPEN_FAILED",
    "KORVEL_SEM_CLOSE_FAILED",
    "KORVEL_SEM_UNLINK_FAILED",
    "KORVEL_SEM_UNLINK_ZOMBIE_FAILED",
    "KORVEL_SEM_GETVALUE_FAILED",
    "KORVEL_SEM_GETVALUE_NOT_IMPLEMENTED",
    "KORVEL_SEM_POST_FAILED",
    "KORVEL_SEM_TRYWAIT_FAILED",
    "KORVEL_SEM_WAIT_FAILED",
    "KORVEL_SEM_WAIT_TIMED_OUT",
    "KORVEL_SEM_WAIT_ABANDONED",
    "KORVEL_SEM_INVALID_RETURN_VALUE",
    "KORVEL_SEM_OP_UNSUPPORTED",
    "KORVEL_SYS_CALL_FAILED",
};

// The texts are part of the interface, spelling included.
const char* const kTexts[] = {
    "Cannot open semaphore '%s'. The name is %d characters long. Maximum name length is %d.",
    "Failed to open semaphore '%s'. \n System error: %s",
    "Failed to close semaphore '%s'. \n System error: %s",
    "Failed to unlink (delete) semaphore '%s'. \n System error: %s",
    "Failed to unlink (delete) zombie semaphore '%s'. \n System error: %s",
    "Failed to get the value of semaphore '%s'. \n System error: %s",
    // NOLINTNEXTLINE(bugprone-suspicious-missing-comma): one text on two lines
    "sem_getvalue() is not implemented on this system. Could not get the value of semaphore "
    "'%s'. \n System error: %s",
    "Failed to release (increment) semaphore '%s'. \n System error: %s",
    "Failed to lock, with trywait protocol, semaphore '%s'. \n System error: %s",
    "Failed to lock semaphore '%s'. \n System error: %s",
    "Wait on semaphore '%s' timed out after %d seconds.",
    "Wait on semaphore '%s' abandonded because the owning process has terminated.",
    "Function '%s' on semaphore '%s' returned an invalid value %d.",
    "Operation '%s' on semaphore '%s' failed because this platform does not support that "
    "operation.",
    "Call to system function '%s' failed.\n System error: %s",
};

static_assert(sizeof kNames / sizeof kNames[0] == 15, "one name per message");
static_assert(sizeof kTexts / sizeof kTexts[0] == 15, "one text per message");
static_assert(sizeof kNumbers / sizeof kNumbers[0] == 2 * 15 + 2, "a pair per message and an end");

}  // namespace

const korvel_message_table koSemMessageTable = {15, kFacility, kNumbers, kNames, kTexts, ""};

// Registration waits for the first report: a process that never reports
// never touches the host's message service.
koSemMessageReporter koSemReporter = {{}, false, &koRegisterSemMessages};

int koRegisterSemMessages() {
  host_add_primary_message_table(hostGetMemoryContext(), &koSemMessageTable);
  return 0;
}

int koReportSemMessage(koSemMessageReporter* reporter, FILE* stream, int32_t identifier, ...) {
  if (!reporter->registered && reporter->registration != nullptr) {
    reporter->registration();
    reporter->registered = true;
  }
  va_list args;
  va_start(args, identifier);
  int n = host_vsprintm(hostGetMessageContext(), reporter->text, sizeof reporter->text, identifier,
                        args);
  va_end(args);
  if (n < 1) return n + 1;
  // Room for the newline and the NUL: a full buffer loses its last character.
  const int last = static_cast<int>(sizeof reporter->text) - 2;
  if (n > last) n = last;
  reporter->text[n] = '\n';
  reporter->text[n + 1] = '\0';
  fputs(reporter->text, stream);
  return n + 2;
}
