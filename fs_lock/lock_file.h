// The second room of the lock code: lock-file primitives. Looking at a
// lock-file name without trusting what is there, making a lock file
// exclusively with its number, and acting on an earlier look only after
// checking that it still holds. Depends on common.h only.
//
// A lock directory may be shared with other users, so whatever sits under a
// lock-file name may have been planted: nothing here follows a symbolic
// link at a lock-file name, opens anything but a regular file, or blocks in
// open. An object that is not a regular file is foreign: it is never read,
// written or removed.
#ifndef KORVEL_FS_LOCK_LOCK_FILE_H_
#define KORVEL_FS_LOCK_LOCK_FILE_H_

#include <sys/types.h>

#include <functional>
#include <string>

#include "fs_lock/common.h"

namespace korvel_detail {

// What a look at a lock-file name found.
enum class Look {
  kFile,     // a regular file
  kMissing,  // nothing
  kForeign,  // something else: FileState::mode says what
  kError,    // it could not be looked at; errno says why
};

// A lock file as seen at one moment: which file it is and what it held.
struct FileState {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  long long mtimeSeconds = 0;
  long mtimeNanos = 0;
  uid_t owner = 0;
  mode_t mode = 0;
  bool hasNumber = false;
  int number = 0;

  // The same file, unchanged: device, inode, size, modification time and
  // number. A holder's refresh changes the number and the time.
  bool sameAs(const FileState& other) const;
};

// "a FIFO", "a directory", "a symbolic link", ...: what a foreign object is.
const char* foreignKind(mode_t mode);

// A lock file opened without following a symbolic link at its name and
// without blocking; kept open only when it is a regular file, whose state
// (and number) it reads.
class OpenLockFile {
 public:
  // flags: O_RDONLY or O_RDWR. nameFirst: look at the name (lstat) before
  // opening, so that not even a FIFO is opened; for looks at files that may
  // be anybody's.
  OpenLockFile(const std::string& path, int flags, bool nameFirst = false);
  ~OpenLockFile();
  OpenLockFile(const OpenLockFile&) = delete;
  OpenLockFile& operator=(const OpenLockFile&) = delete;

  Look look() const { return look_; }
  int fd() const { return fd_; }
  const FileState& state() const { return state_; }
  // Writes value over the content in place (never emptying the file
  // first) and reads the state back. False on failure, errno says why.
  bool write(int value);
  // False when closing reported an error: a network file system may report
  // a failed write only there.
  bool close();

 private:
  int fd_ = -1;
  Look look_ = Look::kError;
  FileState state_;
};

// Looks at the name alone (lstat), without opening anything.
Look lookAtName(const std::string& path, FileState* state);

enum class Create {
  kMade,       // the file is ours, holding the number
  kTaken,      // something has that name
  kRefused,    // cannot be made, and waiting will not change that; errno says why
  kTransient,  // failed for now (no space, I/O); errno says why
};

// Whether the actor still holds what entitles it to act.
typedef std::function<bool()> Entitled;

enum class Act {
  kDone,
  kChanged,      // the file is not the one judged, or is gone: judge afresh
  kNotEntitled,  // the actor no longer holds what entitles it
  kError,        // the act failed; errno says why
};

// An earlier look at a lock file, to be acted on. Every removal of a lock
// file, every takeover and every refresh goes through one: right before the
// act the actor's entitlement is confirmed, and the file is checked to be
// the very one that was judged (its state, FileState::sameAs). Otherwise
// nothing is done. What is left is the window between that check and the
// act itself (see the notes at the top of fs_lock.cpp).
class Judgement {
 public:
  Judgement(std::string path, const FileState& state) : path_(std::move(path)), state_(state) {}

  const std::string& path() const { return path_; }
  const FileState& state() const { return state_; }

  // Unlinks the file.
  Act remove(const Entitled& entitled) const;
  // Writes value over the file in place; *written is its state after. A
  // name that no longer leads to the written file afterwards is kChanged.
  Act writeOver(int value, const Entitled& entitled, FileState* written) const;

 private:
  std::string path_;
  FileState state_;
};

}  // namespace korvel_detail

using korvel_detail::Act;
using korvel_detail::Create;
using korvel_detail::Entitled;
using korvel_detail::FileState;
using korvel_detail::Judgement;
using korvel_detail::Look;
using korvel_detail::OpenLockFile;

// Exclusive create of path (mode as given, less the umask), writing value
// through the new descriptor; *made, when given, is the new file's state.
// A failed create with nothing of that name is examined: a name too long,
// a read-only file system or a directory we may not write in is kRefused.
// Throws koNoSuchDirectory when directory is gone.
Create createLockFile(const std::string& directory, const std::string& path, unsigned mode,
                      int value, FileState* made = nullptr);

// Creates a fresh file (never one that exists, never through a link) and
// writes value with "%d" (no newline); *made is its state. False if it
// cannot be made. Used for the stale test's fresh file.
bool writeFreshFile(const std::string& path, int value, FileState* made);
// Unlinks path, retrying every 1 ms until the deadline. One attempt is
// always made.
bool unlinkWithTenacity(const std::string& path, const Deadline& deadline);

// A fresh name beside path (same directory, so the same file server),
// unique to this process, thread and moment: "." and digits.
std::string freshNameBeside(const std::string& path);
// The longest name freshNameBeside makes, without the directory.
constexpr size_t kLongestFreshName = 64;

#endif  // KORVEL_FS_LOCK_LOCK_FILE_H_
