// Part of the second room of the lock code: what this host knows of lock
// files beyond what the files say. Depends on lock_file.h and common.h.
//
// Both live under hostLocalStateDirectory() (/dev/shm), which every process
// of the host shares and which a reboot empties; a host without one, or a
// container with its own, simply knows nothing, and the ordinary rules
// apply. Anyone may write there, so nothing found there is trusted unless
// its owner is the one it speaks for, or root.
//   - Sightings: what this user's processes have seen of lock files, and
//     since when, on hostMonotonic(), which all processes of a host share.
//     A later attempt goes on watching where an earlier one stopped.
//   - Holders: each holding of a process of this host registers its lock
//     file in a small file that it keeps open, with an open-file-
//     description lock, for as long as it holds. The kernel drops that lock
//     when the last descriptor of it closes, however the process ends, and
//     a process id reused since cannot fool it. A registration is found by
//     the lock file's identity (device and inode, which fix its directory)
//     and the number it holds, and must say the same inside.
#ifndef KORVEL_FS_LOCK_THIS_HOST_H_
#define KORVEL_FS_LOCK_THIS_HOST_H_

#include <string>

#include "fs_lock/lock_file.h"

namespace korvel_detail {

class Sightings {
 public:
  // The user's own record, if this host has a place for it.
  Sightings();

  // When this host first saw the file in this state, or 0.
  double firstSeen(const FileState& state) const;
  void remember(const FileState& state, double firstSeen) const;
  void forget(const FileState& state) const;
  // Drops the records of files first seen before `before`.
  void prune(double before) const;

 private:
  std::string nameOf(const FileState& state) const;

  std::string dir_;  // empty: no record on this host
};

// A holding's registration; none when the host has no place for it.
class Registration {
 public:
  // Registers the lock file as written. REQUIRES: written.hasNumber.
  explicit Registration(const FileState& written);
  // Unregisters, unless this is a child made by fork() (the parent's).
  ~Registration();
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

  // The holder wrote the file again: the registration follows the number.
  void update(const FileState& written);

 private:
  int fd_ = -1;
  pid_t owner_ = 0;
  std::string path_;
};

// Positive evidence that state, a lock file's, belongs to a holder of this
// host that has ended: a trusted registration of it that nobody keeps
// locked any more. False when nothing is known.
// The evidence stays until the file is gone: forgetEndedHolder, by whoever
// removed or took over the file.
bool holderEnded(const FileState& state);
void forgetEndedHolder(const FileState& state);

// Whether registrations made from now on stay open across exec(), so that a
// command that a holder runs keeps the registration alive (korvel-lock: the
// command counts as the holder).
void keepRegistrationsAcrossExec(bool keep);

}  // namespace korvel_detail

using korvel_detail::Registration;
using korvel_detail::Sightings;

#endif  // KORVEL_FS_LOCK_THIS_HOST_H_
