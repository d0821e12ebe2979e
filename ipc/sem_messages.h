// The catalogue of the named semaphore's messages and its reporter. Every
// failure of koSemaphoreIPC is written as one numbered catalogue message on
// standard error, formatted by the host's message service. Internal to the
// library.
#ifndef KORVEL_IPC_SEM_MESSAGES_H_
#define KORVEL_IPC_SEM_MESSAGES_H_

#include <cstdint>
#include <cstdio>

#include "host/host.h"

// Identifiers: the facility 78 ('N') in the high 16 bits, the message
// number in the low 16 bits.
enum koSemMessageId : int32_t {
  KORVEL_SEM_NAME_TOO_LONG = 0x4E0001,             // name, length, maximum
  KORVEL_SEM_OPEN_FAILED = 0x4E0002,               // name, error text
  KORVEL_SEM_CLOSE_FAILED = 0x4E0003,              // name, error text
  KORVEL_SEM_UNLINK_FAILED = 0x4E0004,             // name, error text
  KORVEL_SEM_UNLINK_ZOMBIE_FAILED = 0x4E0005,      // name, error text
  KORVEL_SEM_GETVALUE_FAILED = 0x4E0006,           // name, error text
  KORVEL_SEM_GETVALUE_NOT_IMPLEMENTED = 0x4E0007,  // name, error text
  KORVEL_SEM_POST_FAILED = 0x4E0008,               // name, error text
  KORVEL_SEM_TRYWAIT_FAILED = 0x4E0009,            // name, error text
  KORVEL_SEM_WAIT_FAILED = 0x4E000A,               // name, error text
  KORVEL_SEM_WAIT_TIMED_OUT = 0x4E000B,            // name, time-out (int)
  KORVEL_SEM_WAIT_ABANDONED = 0x4E000C,            // name
  KORVEL_SEM_INVALID_RETURN_VALUE = 0x4E000D,      // function, name, value
  KORVEL_SEM_OP_UNSUPPORTED = 0x4E000E,            // operation, name
  KORVEL_SYS_CALL_FAILED = 0x4E000F,               // function, error text
};

// The catalogue as the host's message service reads it.
extern const korvel_message_table koSemMessageTable;

constexpr size_t kSemReportBufferSize = 2048;

// One per process. Its buffer and flag are not locked: reports at the same
// moment may mix their texts, and two first reports may both register.
struct koSemMessageReporter {
  char text[kSemReportBufferSize];
  bool registered;
  int (*registration)();
};

extern koSemMessageReporter koSemReporter;

// Adds the catalogue to the host's message service; returns 0.
int koRegisterSemMessages();

// Registers the catalogue on the first call, formats the message with its
// arguments, and writes it with a newline to stream. Returns the length
// written plus one; 1 when nothing could be formatted (nothing is written).
// Never throws.
int koReportSemMessage(koSemMessageReporter* reporter, FILE* stream, int32_t identifier, ...);

#endif  // KORVEL_IPC_SEM_MESSAGES_H_
