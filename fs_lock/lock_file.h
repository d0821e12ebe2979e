// The second room of the lock code: lock-file primitives. Making a lock
// file exclusively with its number, reading a number back, and rewriting
// or removing a file only while it still holds the number its holder last
// wrote. Depends on common.h only.
#ifndef KORVEL_FS_LOCK_LOCK_FILE_H_
#define KORVEL_FS_LOCK_LOCK_FILE_H_

#include <string>

#include "fs_lock/common.h"

// Reads one "%d" number; false if the file cannot be opened or holds none.
bool readIntFromFile(const char* path, int& value);
// Creates or truncates the file and writes value with "%d" (no newline).
// False if it cannot be opened. Used for the stale test's fresh file.
bool writeIntToFile(const char* path, int value);
// Removes path, retrying every 1 ms until the deadline. One attempt is
// always made.
bool removeFileWithTenacity(const char* path, const Deadline& deadline);
// The same with 20 ms of patience.
bool removeFileWithTenacity(const char* path);

// A fresh name beside path (same directory, so the same file server),
// unique to this process, thread and moment: "." and digits.
std::string freshNameBeside(const std::string& path);

namespace korvel_detail {

enum class Create {
  kMade,       // the file is ours, holding the number
  kTaken,      // someone else has it
  kRefused,    // cannot be made, and waiting will not change that; errno says why
  kTransient,  // failed for now (no space, I/O); errno says why
};

enum class Owned {
  kYes,    // done: the file held our number
  kLost,   // missing, or holding a number not ours: left alone
  kError,  // could not be done; errno says why
};

}  // namespace korvel_detail

using korvel_detail::Create;
using korvel_detail::Owned;

// Exclusive create of path (mode as given, less the umask), writing value
// through the new descriptor. A failed create with no file of that name is
// examined: a name too long, a read-only file system or a directory we may
// not write in is kRefused. Throws koNoSuchDirectory when directory is gone.
Create createLockFile(const std::string& directory, const std::string& path, unsigned mode,
                      int value);

// Rewrites path in place with value if it still holds expected. Never
// creates the file and never truncates it to zero first.
Owned rewriteIfOurs(const std::string& path, int expected, int value);
// Unlinks path if it still holds expected. Between the read and the unlink
// another holder could take the file over; see the notes in fs_lock.cpp.
Owned removeIfOurs(const std::string& path, int expected);
// The same, retrying errors with back-off until the deadline.
Owned removeIfOursWithin(const std::string& path, int expected, const Deadline& deadline);
// Writes value over whatever path holds (a stale file taken over). Never
// creates the file.
bool overwrite(const std::string& path, int value);

#endif  // KORVEL_FS_LOCK_LOCK_FILE_H_
