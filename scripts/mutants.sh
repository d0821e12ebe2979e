#!/usr/bin/env bash
# Mutation check: how many realistic one-line faults does the test suite
# catch? Each fault below is applied alone to a scratch copy of the tree
# (never to the work tree), the copy is rebuilt incrementally and the ctest
# subset that should notice is run. A fault is killed when that run fails
# (a time-out, here after 30 s, counts). It takes minutes, so it is not part
# of the test run.
#
#   scripts/mutants.sh                   every fault of both sets
#   scripts/mutants.sh REGEX             only the faults whose name matches REGEX
#   scripts/mutants.sh --set SET [REGEX] only the set SET: first, blind or all
#   scripts/mutants.sh --check [...]     only tell which faults still apply (fast)
#
# There are two sets. "first" was written together with the tests; "blind"
# was written later from the library's code and headers alone, so that the
# faults it tries are not the ones the tests were shaped around.
#
# KORVEL_MUTANTS_DIR (default /tmp/korvel-mutants.<a hash of this tree's
# place>) holds the scratch copy and
# its build; it is kept, so the next run only rebuilds what changed.
# Per-fault logs are left in its logs/ folder. The test run of a fault stops
# at its first failing test, unless KORVEL_MUTANTS_FULL=1: then each log
# names every test that caught it.
#
# The faults, one per line:  name | file | exact text | replacement | ctest regex
#   - names are unique across both sets (they name the logs);
#   - the text must occur exactly once in the file, else the fault is
#     reported as "does not apply" (update it when the code moves on);
#   - in text and replacement, "\|" is a "|", "\n" a line break and "\\" a
#     backslash; surrounding blanks are dropped;
#   - the regex (the rest of the line) selects ctest names, which are
#     "<test binary>.<suite>.<test>"; @locks, @paths, @threads, @ipc and
#     @tool stand for the suites of a family, alone or as alternatives
#     ("@locks|@tool").
# A fault that still survives is explained by a comment line above it.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 2

# ---- The first set ----
read -r -d '' FIRST_FAULTS <<'EOF'
# ---- Lock files, stale test, directory locks ----
stale_watched_a_second_longer | fs_lock/stale_test.cpp | const bool stale = watched > kObservationSeconds \|\| | const bool stale = watched > kObservationSeconds + 1 \|\| | FsLockTest\.Stale
stale_by_file_times | fs_lock/stale_test.cpp | sighting.serverAge + watched > kLongDeadSeconds \|\| | sighting.serverAge + watched > korvel_protocol::kStaleSeconds \|\| | FsLockTest\.Stale|RwProcessTest\.FileTimes
long_dead_waits_too | fs_lock/stale_test.cpp | sighting.serverAge + watched > kLongDeadSeconds \|\| | false \|\| | FsLockTest\.(Stale|DeadHolders)
sightings_forgotten | fs_lock/stale_test.cpp | record.remember(seen.state, seen.firstSeen); | | FsLockTest\.(Stale|DeadHolders)
foreign_objects_unnamed | fs_lock/stale_test.cpp | if (found == Verdict::kForeign) warnForeign(lockFile, *seen); | | RwLockTest\.Foreign
judgement_ignores_the_file | fs_lock/lock_file.cpp | return file.state().sameAs(judged) ? Act::kDone : Act::kChanged; | return Act::kDone; | FsLockTest\.LockFiles|RwProcessTest\.AStalled
removal_unchecked | fs_lock/lock_file.cpp | const Act checked = check(file, state_);\n  if (checked != Act::kDone) return checked;\n  file.close(); | file.close(); | FsLockTest\.LockFiles|RwProcessTest\.AStalled
holder_ignores_file_times | fs_lock/lock_file.cpp | mtimeSeconds == other.mtimeSeconds && mtimeNanos == other.mtimeNanos && | true && | FsLockTest\.LockFiles
release_keeps_file | fs_lock/holding.cpp | while ((act = ours.remove(entitled)) == Act::kError | while ((act = Act::kDone) == Act::kError | FsLockTest\.Reentrant
waiter_skips_a_level | fs_lock/exclusive_lock.cpp | const int target = level_ - 1;\n    mark_ | const int target = level_ - 2;\n    mark_ | ^fs_lock_test\.FsLockTest\.
takeover_without_own_place | fs_lock/exclusive_lock.cpp | const Entitled entitled([this] { return keepPlace() == Place::kKept; }, | const Entitled entitled([] { return true; }, | FsLockTest\.AWaiterStopped
unbreakable_stale_file_ends_the_wait | fs_lock/exclusive_lock.cpp | case Act::kError:    // named once; waited out until the deadline\n        break; | case Act::kError:\n        giveUp(errno);\n        return Step::kFail; | RwLockTest\.OtherUsers
queue_never_swept | fs_lock/exclusive_lock.cpp | sweepUpperLevels();\n  // The lease | // The lease | FsLockTest\.DeadHolders
sweep_ends_at_the_first_gap | fs_lock/exclusive_lock.cpp | gaps < kSweptGaps; | gaps < 1; | FsLockTest\.DeadHolders
full_file_system_warned_at_every_poll | fs_lock/exclusive_lock.cpp | if (transientWarned_ == 0.0 \|\| now - transientWarned_ >= 60.0) { | if (true) { | FsLockTest\.NothingHangs
forked_child_acquires | fs_lock/exclusive_lock.cpp | if (creator_ != hostProcessId()) {  // a forked child | if (false) {  // a forked child | FsLockTest\.BadDirectories
empty_path_accepted | fs_lock/exclusive_lock.cpp | if (directory_.empty()) { | if (false) { | FsLockTest\.BadDirectories
long_path_unchecked | fs_lock/exclusive_lock.cpp | if (directory_.size() + 1 + kLongestFreshName >= PATH_MAX) { | if (false) { | FsLockTest\.BadDirectories
relative_path_kept | fs_lock/common.cpp | if (path.empty() \|\| path[0] == '/') return path; | return path; | FsLockTest\.BadDirectories
single_attempt_waits_for_any_holder | fs_lock/read_write_lock.cpp | false, true, kSingleAttemptHolderPatience) | false, true) | RwLockTest\.HandlesCount
stale_files_left | fs_lock/read_write_lock.cpp | removed = remover->removeStaleFile(stale, entitled) == Act::kDone \|\| removed; | | RwProcessTest\.FiniteWaits
removal_without_the_directory_lock | fs_lock/read_write_lock.cpp | const Entitled entitled([&guard] { return guard.stillHeld(); }, | const Entitled entitled([] { return true; }, | RwProcessTest\.AStalled
directory_lock_not_read_back | fs_lock/holding.cpp | if (!mayWrite()) return false;\n  const OpenLockFile | return mayWrite();\n  const OpenLockFile | RwProcessTest\.AStalled
unknown_write_lock_lets_readers_in | fs_lock/read_write_lock.cpp | return -1;\n} | return 0;\n} | RwLockTest\.Missing
handler_waits_for_itself | fs_lock/holding.cpp | return !handlerRunning_ \|\| handlerThread_ == self; | return !handlerRunning_; | FsLockTest\.LossHandlers
registration_never_made | fs_lock/holding.cpp | registration_.reset(new Registration(written)); | registration_.reset(); | LockProcessTest\.OnOneHost
registration_keeps_its_first_number | fs_lock/holding.cpp | if (registration_) registration_->update(written); | | LockProcessTest\.OnOneHost
registration_of_anyone_trusted | fs_lock/this_host.cpp | (st.st_uid == state.owner \|\| st.st_uid == 0) &&\n                     registrationText(state) == text | true &&\n                     registrationText(state) == text | LockProcessTest\.OnOneHost
registration_number_unchecked | fs_lock/this_host.cpp | registrationText(state) == text &&\n | true &&\n | LockProcessTest\.OnOneHost
live_registration_taken_for_dead | fs_lock/this_host.cpp | hostLockControl(*fd, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_UNLCK; | true; | RwProcessTest\.FileTimes|LockProcessTest
# Survives: any event still wakes the waiter, whose poll is then over; in
# real time, without the check it sleeps out its 10 ms poll: later, not wrong.
removals_wake_nobody | fs_lock/watch.cpp | return c.sequence >= from && (c.watch == -1 \|\| c.watch == watch); | return false; | LockProcessTest\.OnOneHost|FsLockTest\.AWaiterIsWoken
waiter_woken_for_its_own_level | fs_lock/exclusive_lock.cpp | void pause() { sleepWhileThere(level_ - 1, backOff_); } | void pause() { sleepWhileThere(level_, backOff_); } | LockProcessTest\.OnOneHost
exclusive_refresh_never_rewrites | fs_lock/exclusive_lock.cpp | Holdings failed = refreshOnce({o.holding_}, o.numbers_); | Holdings failed; | RwLockTest\.HeldFiles
exclusive_refresh_every_50s | fs_lock/exclusive_lock.cpp | LoopWait::waitFor(context, untilRefresh({o.holding_})) | LoopWait::waitFor(context, 10 * untilRefresh({o.holding_})) | RwLockTest\.HeldFiles
exclusive_refresh_every_second | fs_lock/exclusive_lock.cpp | LoopWait::waitFor(context, untilRefresh({o.holding_})) | LoopWait::waitFor(context, 0.2 * untilRefresh({o.holding_})) | FsLockTest\.Refreshes
refresh_retry_in_whole_seconds | threads/thread.cpp | const double real = hostRealSeconds(seconds); | const double real = hostRealSeconds(static_cast<long>(seconds)); | FsLockTest\.(Refreshes|NothingHangs)
rw_refresh_skips_write_lock | fs_lock/read_write_lock.cpp | if (noRefresh \|\| !hasFile \|\| refreshed) return; | if (noRefresh \|\| write \|\| !hasFile \|\| refreshed) return; | RwLockTest\.HeldFiles
rw_refresh_skips_read_locks | fs_lock/read_write_lock.cpp | if (noRefresh \|\| !hasFile \|\| refreshed) return; | if (noRefresh \|\| !write \|\| !hasFile \|\| refreshed) return; | RwLockTest\.HeldFiles
exclusive_holds_the_wrong_level | fs_lock/exclusive_lock.cpp | holding_->hold(levelFile(0), walk.written(), walk.since()); | holding_->hold(levelFile(1), walk.written(), walk.since()); | FsLockTest\.Reentrant
waiter_queues_one_level_up | fs_lock/exclusive_lock.cpp | int level = 0; | int level = 1; | ^fs_lock_test\.(FsLockTest|LockProcessTest\.Diagnostics)
writer_skips_read_lock_scan | fs_lock/read_write_lock.cpp | if (readers.empty()) return Entry::kFree; | return Entry::kFree; | ^fs_lock_test\.Rw
lock_file_made_without_dir_lock | fs_lock/read_write_lock.cpp | : lock_.acquireUntil(deadline, false, true)) { | : true) { | ^fs_lock_test\.Rw
rw_release_keeps_file | fs_lock/read_write_lock.cpp | removed = releaseHolding(*holding, dir->directory, deadline.capped(kReleaseEffortSeconds)); | removed = Released::kRemoved; | ^fs_lock_test\.RwLockTest\.
lease_timer_never_fires | fs_lock/holding.cpp | if (now < leaseEnd_) return leaseEnd_; | return leaseEnd_; | FsLockTest\.ALease|^lock_explorer_calm$
lease_of_16_seconds | fs_lock/protocol.h | constexpr double kLeaseSeconds = 14.0; | constexpr double kLeaseSeconds = 16.0; | FsLockTest\.ALease|^lock_explorer_calm$
lock_file_kept_under_lost_dir_lock | fs_lock/read_write_lock.cpp | if (!guard.stillHeld()) { | if (false) { | RwLockTest\.NoLockFileIsKept
unlistable_directory_lets_writers_in | fs_lock/read_write_lock.cpp | return Entry::kRefused;\n  }\n  if (readers.empty()) | return Entry::kFree;\n  }\n  if (readers.empty()) | RwLockTest\.Missing
refusal_retried_forever | fs_lock/lock_file.cpp | if (!isRefusal(error)) { | if (true) { | FsLockTest\.NothingHangs
deadline_does_not_saturate | fs_lock/common.cpp | if (!(seconds < 100.0 * 365 * 86400)) return forever(); | | FsLockTest\.TimeOuts
forked_child_releases | fs_lock/exclusive_lock.cpp | if (creator_ != hostProcessId() \|\| acquireCount_ == 0) { | if (acquireCount_ == 0) { | FsLockTest\.BadDirectories
# ---- Lease and clock arithmetic, for the fault explorer's calm profile ----
# Survives: a refresh answered late either returns within the 9 s the last
# lease has left (the next refresh renews it anyway) or after the loss; only
# a late refresh followed by a stop of the holder tells them apart.
lease_from_end_of_refresh | fs_lock/holding.cpp | holding.wrote(written, start); | holding.wrote(written, hostMonotonic()); | ^lock_explorer_calm$|^fs_lock_test\.
first_lease_is_stale_time | fs_lock/holding.cpp | lost_ = false;\n    leaseEnd_ = start + korvel_protocol::kLeaseSeconds; | lost_ = false;\n    leaseEnd_ = start + korvel_protocol::kStaleSeconds; | ^lock_explorer_calm$|^fs_lock_test\.
# Survives: a new lease never ends before the one the timer waits for; only
# a suspend of the host (the wait's clock stops, the lease's does not) would
# make the timer oversleep.
lease_timer_oversleeps | fs_lock/holding.cpp | std::min(1.0, std::max(0.0, next - hostMonotonic())) | std::max(0.0, next - hostMonotonic()) | ^lock_explorer_calm$|^fs_lock_test\.
losses_told_in_list_order | fs_lock/holding.cpp | std::stable_sort(ended.begin(), ended.end(), | if (false) std::stable_sort(ended.begin(), ended.end(), | ^fs_lock_test\.FsLockTest\.LossHandlersMayTearDownAnyLock$
lease_timer_on_the_wall_clock | fs_lock/holding.cpp | const double now = hostMonotonic();\n      double next | const double now = hostRealtime();\n      double next | ^lock_explorer_calm$|^fs_lock_test\.
watching_on_the_wall_clock | fs_lock/stale_test.cpp | Sighting& sighting = sightings_[lockFile];\n  const double now = hostMonotonic(); | Sighting& sighting = sightings_[lockFile];\n  const double now = hostRealtime(); | ^lock_explorer_calm$|^fs_lock_test\.

# ---- korvel-lock ----
tool_timeout_status | tools/korvel_lock.cpp | constexpr int kDefaultConflict = 75; | constexpr int kDefaultConflict = 1; | @tool
tool_status_stale_rule | tools/lock_files.cpp | ageOf(file, now) > korvel_protocol::kStaleSeconds; | ageOf(file, now) > 4 * korvel_protocol::kStaleSeconds; | @tool
tool_signal_not_passed_on | tools/korvel_lock.cpp | const int passed = kill(-child, signal); | const int passed = 0; | @tool
tool_lost_lock_ignored | tools/korvel_lock.cpp | if (lockLost && !o.ignoreLoss && !commandTerminated) { | if (false) { | @tool
tool_terminal_not_handed_over | tools/korvel_lock.cpp | const bool foreground = tty >= 0 && tcgetpgrp(tty) == getpgrp(); | const bool foreground = false; | @tool
tool_parent_death_sends_term | tools/korvel_lock.cpp | prctl(PR_SET_PDEATHSIG, SIGKILL); | prctl(PR_SET_PDEATHSIG, SIGTERM); | @tool
tool_does_not_stop_with_its_job | tools/korvel_lock.cpp | kill(getpid(), SIGSTOP); | | @tool
tool_continued_alone | tools/korvel_lock.cpp | tcsetpgrp(tty, group);\n  kill(-group, SIGCONT);\n} | tcsetpgrp(tty, group);\n} | @tool
tool_signal_waits_for_the_library | tools/korvel_lock.cpp | if (a.state != Attempt::State::kHeld) { | if (false) { | KorvelLockTest\.Ending
# Survives: reached only when the library overruns a deadline by seconds, as
# on a hung mount; nothing here can hang it since lock files open O_NONBLOCK.
tool_overrun_waited_for | tools/korvel_lock.cpp | if (deadline >= 0 && now > deadline + kOverrunSeconds) { | if (false) { | KorvelLockTest\.AForeign
tool_obstacle_not_told | tools/korvel_lock.cpp | if (!a.obstacle.empty() && !obstacleShown) { | if (false) { | @tool
tool_foreign_taken_for_a_file | tools/lock_files.cpp | file->foreign = type == S_IFREG    ? nullptr | file->foreign = true ? nullptr | @tool
tool_short_digit_names_cleaned | tools/lock_files.cpp | name.size() > kStaleTestDigits && | name.size() > 1 && | @tool
tool_unlistable_directory_free | tools/lock_files.cpp | *what = "cannot list it";\n    return false; | return true; | @tool
tool_removal_failure_silent | tools/korvel_lock.cpp | } else if (errno != 0) { | } else if (false) { | @tool
tool_force_not_needed | tools/korvel_lock.cpp | if (o.force) { | if (true) { | @tool
# Survives: the library now waits out another user's stale file itself and
# never returns EACCES for it; the tool's own retry is a second line.
tool_unbreakable_stale_refuses | tools/korvel_lock.cpp | (unbreakable && (error == EACCES \|\| error == EPERM)) | false | @tool
tool_sticky_bit_ignored | tools/lock_files.cpp | return (st.st_mode & S_ISVTX) == 0 \|\| file.owner == geteuid() \|\| st.st_uid == geteuid(); | return true; | @tool
tool_release_failure_not_a_loss | tools/korvel_lock.cpp | if (!lock.lost() && cause.empty()) { | if (!lock.lost()) { | @tool
tool_full_file_system_refuses | tools/korvel_lock.cpp | return error == ENOSPC \|\| | return error == ENOMEM \|\| | KorvelLockTest\.AFull
# ---- Path strings and buffers ----
append_bounded_off_by_one | paths/path_strings.cpp | size_t n = strnlen(src, dstSize - 1 - used); | size_t n = strnlen(src, dstSize - used); | @paths
collapse_reads_past_n | paths/path_strings.cpp | while (len < n && r[len] != '\0' && r[len] != '/') ++len; | while (len <= n && r[len] != '\0' && r[len] != '/') ++len; | @paths
collapse_dotdot_eats_root | paths/path_strings.cpp | while (w > dst + 1 && w[-1] == '/') --w; | while (w > dst && w[-1] == '/') --w; | @paths
canonical_fast_path_bound | paths/path_strings.cpp | canonical::resolveInto(out, outSize + 1, path.text) | canonical::resolveInto(out, outSize + 2, path.text) | @paths
trim_input_copy_bound | paths/path_strings.cpp | length = std::min(length, kLongestPath);\n    memcpy(copy, in, length); | length = std::min(length, kPathBuffer);\n    memcpy(copy, in, length); | @paths
make_absolute_copy_bound | paths/path_strings.cpp | path.length = std::min(path.length, kLongestPath); | path.length = std::min(path.length, kPathBuffer); | @paths
# Survives: out holds outSize + 1 bytes and the final collapse cuts to outSize - 1, so no caller sees it.
make_absolute_room_off_by_one | paths/path_strings.cpp | std::min(path.length, outSize - start - 1) | std::min(path.length, outSize - start) | @paths
prefix_guess_never_checked | paths/path_strings.cpp | if (!confirmed) { | if (false) { | @paths
temp_dir_bound | paths/path_strings.cpp | size_t n = strnlen(tmp, kPathBuffer - 2); | size_t n = strnlen(tmp, kPathBuffer - 1); | @paths
module_path_bound | paths/modules.cpp | strncpy(buffer, info.dli_fname, size - 1); | strncpy(buffer, info.dli_fname, size); | @paths
tilde_copy_bound | host/host_paths.cpp | size_t n = strnlen(src, dstSize - 1); | size_t n = strnlen(src, dstSize); | @paths
temp_name_in_use | paths/path_strings.cpp | } while (koFileOrDirExists(buf)); | } while (false); | @paths
# ---- Walker, trees, modules ----
walker_skips_dotfiles | paths/dir_walker.cpp | if (strcmp(name, ".") == 0 \|\| strcmp(name, "..") == 0) continue; | if (name[0] == '.') continue; | @paths
walker_one_level_too_deep | paths/dir_walker.cpp | if (depth > 0) count += walk(dir, "*", visitor, depth - 1, false); | if (depth >= 0) count += walk(dir, "*", visitor, depth - 1, false); | @paths
walker_dot_prefixed | paths/dir_walker.cpp | dir[0] = '\0'; | strcpy(dir, "./"); | @paths
wildcard_matches_prefix | host/host_paths.cpp | return *pattern == '\0'; | return true; | @paths
mkdirp_existing_is_failure | paths/tree.cpp | if (koIsDirectory(prefix.c_str())) continue; | | @paths
mkdirp_mode_0755 | paths/tree.cpp | hostMkdir(prefix.c_str(), 0775) | hostMkdir(prefix.c_str(), 0755) | @paths
removerf_forgets_mode | paths/tree.cpp | if (hostRemoveFile(path) != 0 && oldMode != 0) koSetFilePermissions(path, oldMode); | hostRemoveFile(path); | @paths
removerf_follows_links | paths/tree.cpp | if (isSymbolicLink(path)) { | if (false) { | @paths
write_bits_owner_only | paths/tree.cpp | constexpr unsigned kWriteBits = S_IWUSR \| S_IWGRP \| S_IWOTH; | constexpr unsigned kWriteBits = S_IWUSR; | @paths
module_name_at_start_only | paths/modules.cpp | if (hit == p \|\| hit[-1] == '/') { | if (hit == p) { | @paths
maps_path_token | paths/modules.cpp | constexpr int kTokensToPath = 4; | constexpr int kTokensToPath = 3; | @paths
# ---- Threads ----
pool_never_reuses | threads/thread_pool.cpp | if (!idleThreads_.empty()) { | if (false) { | @threads
pool_takes_the_oldest | threads/thread_pool.cpp | candidate = idleThreads_.back(); | candidate = idleThreads_.front(); | @threads
pool_join_does_not_wait | threads/thread_pool.cpp | while (!finished_) { | while (false) { | @threads
pool_keeps_one_too_many | threads/thread_pool.cpp | idleThreads_.size() < maxIdleThreads_ | idleThreads_.size() <= maxIdleThreads_ | @threads
pool_reset_keeps_finished | threads/thread_pool.cpp | }\n  finished_ = false; | } | @threads
pool_spins_on_one_processor | threads/thread_pool.cpp | static const bool pays = hostUsableProcessors() > 1; | static const bool pays = true; | @threads
cpu_quota_ignored | host/host_threads.cpp | usable = std::min<long long>(usable, quota / period); | | @threads
pool_start_failure_forgotten | threads/thread_pool.cpp | started_ = Started::kFailed; | | @threads
pool_unused_threads_left_running | threads/thread_pool.cpp | delete cleanup_;  // no thread was ever taken: no body to wait for | | @threads
thread_detach_not_recorded | threads/thread.cpp | detached_ = true; | | @threads
guard_disarm_keeps_pointer | threads/thread.cpp | action_ = nullptr; | | @threads
loop_does_not_stop | include/korvel/threads.h | driver.stopRequested = true; | | @threads
loop_stop_does_not_wake | include/korvel/threads.h | driver.wakeCondition.notify_one(); | | @threads
loop_stop_ignores_count | include/korvel/threads.h | if (useCount_ > 1) { | if (useCount_ > 2) { | @threads
short_wait_rounds_up | host/sync.cpp | n / (1000 / millisPerUnit_) | (n + 999) / (1000 / millisPerUnit_) | @threads
loop_wait_ignores_deadline | include/korvel/threads.h | wakeCondition_->wait_for(*lock_, boost::chrono::seconds(unit.toSeconds(amount))); | wakeCondition_->wait(*lock_); | @threads
loop_wait_in_milliseconds | include/korvel/threads.h | boost::chrono::seconds(unit.toSeconds(amount)) | boost::chrono::milliseconds(unit.toMillis(amount)) | @threads
# ---- Named semaphores and their messages ----
sem_release_does_not_post | ipc/semaphore.cpp | const bool posted = hostSemPost(handle_) == 0; | const bool posted = true; | @ipc
sem_stores_result_not_errno | ipc/semaphore.cpp | lastError_ = errno;\n  if (lastError_ == ETIMEDOUT) { | lastError_ = result;\n  if (lastError_ == ETIMEDOUT) { | @ipc
sem_name_first_slash_replaced | ipc/semaphore.cpp | for (size_t i = 1; i < name_.size(); ++i) { | for (size_t i = 0; i < name_.size(); ++i) { | @ipc
sem_deadline_taken_as_interval | ipc/semaphore.cpp | const struct timespec deadline = {timeOut_, 0}; | const struct timespec deadline = {time(nullptr) + timeOut_, 0}; | @ipc
sem_busy_try_reported | ipc/semaphore.cpp | if (lastError_ != EAGAIN) { | { | @ipc
sem_destructor_keeps_name | ipc/semaphore.cpp | }\n  if (hostSemUnlink(name_.c_str()) != 0 | }\n  if (false | @ipc
sem_getvalue_messages_swapped | ipc/semaphore.cpp | lastError_ == ENOSYS ? KORVEL_SEM_GETVALUE_NOT_IMPLEMENTED : KORVEL_SEM_GETVALUE_FAILED | lastError_ == ENOSYS ? KORVEL_SEM_GETVALUE_FAILED : KORVEL_SEM_GETVALUE_NOT_IMPLEMENTED | @ipc
sem_zombie_wrong_errno | ipc/semaphore.cpp | if (errno == EACCES) { | if (errno == EPERM) { | @ipc
catalogue_text_changed | ipc/sem_messages.cpp | "Wait on semaphore '%s' timed out after %d seconds.", | "Wait on semaphore '%s' timed out after %d second(s).", | @ipc
catalogue_registered_each_time | ipc/sem_messages.cpp | reporter->registered = true; | | @ipc
report_cut_off_by_one | ipc/sem_messages.cpp | const int last = static_cast<int>(sizeof reporter->text) - 2; | const int last = static_cast<int>(sizeof reporter->text) - 1; | @ipc
report_unknown_written | ipc/sem_messages.cpp | if (n < 1) return n + 1; | | @ipc
EOF

# ---- The blind set ----
# Written from the library's code and headers alone, without a look at the
# tests. Each fault is a mistake the code invites: an off-by-one at a limit
# (a file exactly 15 s old), milliseconds taken for seconds, the wrong
# clock, a check left out, a condition turned round, a wrong constant. Each
# regex first selected the whole family that should notice; after the first
# full runs the lock faults' regexes were narrowed to the tests that killed
# them, which keeps a run of both sets short. A survivor keeps its family.
read -r -d '' BLIND_FAULTS <<'EOF'
# ---- Lock files and the stale test ----
stale_at_exactly_the_observation_time | fs_lock/stale_test.cpp | const bool stale = watched > kObservationSeconds \|\| | const bool stale = watched >= kObservationSeconds \|\| | ^fs_lock_test\.FsLockTest\.StaleMeansUnchangedForFifteenSecondsOrLongDead$
long_dead_at_exactly_ten_minutes | fs_lock/stale_test.cpp | sighting.serverAge + watched > kLongDeadSeconds \|\| | sighting.serverAge + watched >= kLongDeadSeconds \|\| | ^fs_lock_test\.FsLockTest\.StaleMeansUnchangedForFifteenSecondsOrLongDead$
watched_until_now_not_the_last_look | fs_lock/stale_test.cpp | const double watched = sighting.lastSeen - sighting.firstSeen; | const double watched = hostMonotonic() - sighting.firstSeen; | ^fs_lock_test\.FsLockTest\.StaleMeansUnchangedForFifteenSecondsOrLongDead$
server_age_nanoseconds_as_microseconds | fs_lock/stale_test.cpp | static_cast<double>(now.mtimeNanos - state.mtimeNanos) / 1e9; | static_cast<double>(now.mtimeNanos - state.mtimeNanos) / 1e6; | ^lock_explorer_calm$
first_look_aged_on_the_wrong_clock | fs_lock/stale_test.cpp | hostRealtime() - static_cast<double>(seen->mtimeSeconds) > kObservationSeconds)) { | hostMonotonic() - static_cast<double>(seen->mtimeSeconds) > kObservationSeconds)) { | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
earlier_sightings_ignored | fs_lock/stale_test.cpp | const double earlier = Sightings().firstSeen(sighting->state); | const double earlier = 0.0; | ^fs_lock_test\.FsLockTest\.StaleMeansUnchangedForFifteenSecondsOrLongDead$
fresh_file_left_beside_the_lock | fs_lock/stale_test.cpp | unlinkWithTenacity(fresh, Deadline::afterSeconds(0.02)); | | ^fs_lock_test\.FsLockTest\.StaleMeansUnchangedForFifteenSecondsOrLongDead$
same_as_ignores_the_number | fs_lock/lock_file.cpp | hasNumber == other.hasNumber && (!hasNumber \|\| number == other.number); | hasNumber == other.hasNumber; | ^fs_lock_test\.FsLockTest\.StaleMeansUnchangedForFifteenSecondsOrLongDead$
lock_file_opened_through_a_link | fs_lock/lock_file.cpp | constexpr int kSafeOpen = O_NOFOLLOW \| O_NONBLOCK \| O_NOCTTY \| O_CLOEXEC; | constexpr int kSafeOpen = O_NONBLOCK \| O_NOCTTY \| O_CLOEXEC; | ^fs_lock_test\.FsLockTest\.LockFilesAreActedOnOnlyAsTheyWereJudged$
rewrite_leaves_old_digits | fs_lock/lock_file.cpp | (number.length < state_.size && hostFtruncate(fd_, number.length) != 0) \|\| | (number.length > state_.size && hostFtruncate(fd_, number.length) != 0) \|\| | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$|^lock_explorer_calm$
takeover_checks_the_device_only | fs_lock/lock_file.cpp | now.inode == written->inode ? Act::kDone | true ? Act::kDone | ^fs_lock_test\.FsLockTest\.LockFilesAreActedOnOnlyAsTheyWereJudged$
# ---- The exclusive queue ----
newcomer_jumps_the_queue | fs_lock/exclusive_lock.cpp | if (level != yieldedAt && above > 0) { | if (level == yieldedAt && above > 0) { | ^fs_lock_test\.FsLockTest\.ANewcomerLetsTheWaiterAboveMoveIn$
single_attempt_skips_its_step_down | fs_lock/exclusive_lock.cpp | if (level_ > 0 && !singleAttempt_) { | if (level_ > 0) { | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
zero_timeout_not_a_single_attempt | fs_lock/exclusive_lock.cpp | Deadline::after(timeout, unit), timeout == 0, noRefreshLoop | Deadline::after(timeout, unit), false, noRefreshLoop | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
try_lock_for_counts_seconds | fs_lock/exclusive_lock.cpp | [this](unsigned long left) { return acquire(left, TimeUnit::sMilliseconds(), false); }, | [this](unsigned long left) { return acquire(left, TimeUnit::sSeconds(), false); }, | ^fs_lock_test\.FsLockTest\.TimeOutsSaturateAndKeepTheirMilliseconds$
exclusive_release_keeps_the_last_count | fs_lock/exclusive_lock.cpp | if (acquireCount_ > 1) {\n    --acquireCount_; | if (acquireCount_ >= 1) {\n    --acquireCount_; | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$|^lock_explorer_calm$
ended_refresh_loop_not_restarted | fs_lock/exclusive_lock.cpp | if (refreshRunning_ && !refreshEnded_) return; | if (refreshRunning_) return; | ^fs_lock_test\.FsLockTest\.RefreshesComeEveryFiveSecondsAndDeadlinesKeepTheirMilliseconds$
sweep_period_counted_in_seconds | fs_lock/exclusive_lock.cpp | sweptAgo < kRefreshPeriodMs / 1000.0) return; | sweptAgo < kRefreshPeriodMs) return; | ^fs_lock_test\.FsLockTest\.DeadHoldersAreTakenOverOnceWatchedLongEnough$
sweep_only_ten_minute_old_places | fs_lock/exclusive_lock.cpp | now - static_cast<double>(seen.mtimeSeconds) < korvel_protocol::kObservationSeconds) { | now - static_cast<double>(seen.mtimeSeconds) < korvel_protocol::kLongDeadSeconds) { | ^fs_lock_test\.FsLockTest\.DeadHoldersAreTakenOverOnceWatchedLongEnough$
transient_back_off_uncapped | fs_lock/exclusive_lock.cpp | backOff_ = std::min(2 * backOff_, kMaxBackOffMs); | backOff_ = 2 * backOff_; | ^fs_lock_test\.FsLockTest\.NothingHangsSilently$
lock_numbers_seeded_by_the_process_id | fs_lock/common.cpp | LockNumbers::LockNumbers() : value_(hostRandom()) {} | LockNumbers::LockNumbers() : value_(hostProcessId()) {} | ^fs_lock_test\.FsLockTest\.NumbersOfTwoProcessesNeverMeet$
lock_numbers_never_advance | fs_lock/common.cpp | return static_cast<int>(value_.fetch_add(1) & 0x7fffffffu); | return static_cast<int>(value_.load() & 0x7fffffffu); | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$|^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
# ---- Holdings, leases, deadlines and the refresh ----
first_lease_from_the_acquisition_end | fs_lock/exclusive_lock.cpp | holding_->hold(levelFile(0), walk.written(), walk.since()); | holding_->hold(levelFile(0), walk.written(), hostMonotonic()); | ^fs_lock_test\.FsLockTest\.ALeaseRunsOutOnTheClockAlone$
first_lease_only_a_refresh_period | fs_lock/holding.cpp | lost_ = false;\n    leaseEnd_ = start + korvel_protocol::kLeaseSeconds; | lost_ = false;\n    leaseEnd_ = start + korvel_protocol::kRefreshPeriodMs / 1000.0; | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$|^lock_explorer_calm$
lease_stacked_on_the_old_one | fs_lock/holding.cpp | written_ = written;\n    leaseEnd_ = start + korvel_protocol::kLeaseSeconds; | written_ = written;\n    leaseEnd_ = std::max(leaseEnd_, start) + korvel_protocol::kLeaseSeconds; | ^fs_lock_test\.FsLockTest\.ALeaseRunsOutOnTheClockAlone$
lease_timer_wakes_a_second_late | fs_lock/holding.cpp | hostRealSeconds(wait + 0.001) | hostRealSeconds(wait + 1.0) | ^fs_lock_test\.FsLockTest\.ALeaseRunsOutOnTheClockAlone$
lost_waits_for_the_lease_timer | fs_lock/holding.cpp | const_cast<LockHolding*>(this)->checkLease(hostMonotonic()); | | ^fs_lock_test\.FsLockTest\.ALeaseRunsOutOnTheClockAlone$|^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$
# Survives: the guard counts only when the lease timer and a refresh find
# the same loss at the same instant; every other caller checks lost_ first.
loss_told_again_and_again | fs_lock/holding.cpp | if (lost_ \|\| !held_) return;\n    lost_ = true; | if (!held_) return;\n    lost_ = true; | @locks
loss_outlives_the_next_acquisition | fs_lock/holding.cpp | held_ = true;\n    lost_ = false; | held_ = true; | ^lock_explorer_calm$
holder_read_back_ignores_the_content | fs_lock/holding.cpp | if (file.look() == Look::kFile && file.state().sameAs(written())) return true; | if (file.look() == Look::kFile) return true; | ^fs_lock_test\.RwProcessTest\.AStalledJudgementActsOnNothingThatChanged$
release_retries_past_its_deadline | fs_lock/holding.cpp | while ((act = ours.remove(entitled)) == Act::kError && !isRefusal(errno) && !deadline.passed()) { | while ((act = ours.remove(entitled)) == Act::kError && !isRefusal(errno)) { | ^fs_lock_test\.FsLockTest\.RefreshesComeEveryFiveSecondsAndDeadlinesKeepTheirMilliseconds$
capped_deadline_takes_the_later | fs_lock/common.cpp | return !infinite_ && at_ < cap.at_ ? *this : cap; | return !infinite_ && at_ > cap.at_ ? *this : cap; | ^fs_lock_test\.FsLockTest\.RefreshesComeEveryFiveSecondsAndDeadlinesKeepTheirMilliseconds$
capped_forever_stays_forever | fs_lock/common.cpp | return !infinite_ && at_ < cap.at_ ? *this : cap; | return infinite_ \|\| at_ < cap.at_ ? *this : cap; | ^fs_lock_test\.FsLockTest\.TimeOutsSaturateAndKeepTheirMilliseconds$
deadline_in_whole_seconds | fs_lock/common.cpp | const double seconds = static_cast<double>(unit.toMillis(n)) / 1000.0; | const double seconds = static_cast<double>(unit.toSeconds(n)); | ^fs_lock_test\.FsLockTest\.NothingHangsSilently$
lock_millis_counted_in_seconds | include/korvel/fs_lock.h | std::chrono::ceil<std::chrono::milliseconds>(d).count(); | std::chrono::ceil<std::chrono::seconds>(d).count(); | ^fs_lock_test\.FsLockTest\.TimeOutsSaturateAndKeepTheirMilliseconds$
# ---- The read-write lock ----
own_reader_blocks_own_reader | fs_lock/read_write_lock.cpp | (write && dir->ownsReadLock()) | (!write && dir->ownsReadLock()) | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$|^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
foreign_write_lock_counts_as_free | fs_lock/read_write_lock.cpp | case Look::kForeign:  // named by the stale test; it blocks like a holder\n      return 1;\n    case Look::kMissing: | return 1;\n    case Look::kForeign:\n    case Look::kMissing: | ^fs_lock_test\.RwLockTest\.ForeignObjectsBlockButAreNeverTouched$
stale_readers_never_judged | fs_lock/read_write_lock.cpp | if (name == writeName \|\| name.compare(0, readPrefix.size(), readPrefix) == 0) { | if (name == writeName) { | ^fs_lock_test\.RwProcessTest\.FiniteWaitsRideOutContentionAndBreakStaleLocks$
rw_back_off_uncapped | fs_lock/read_write_lock.cpp | backOff = std::min(2 * backOff, kMaxBackOffMs); | backOff = 2 * backOff; | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$
rw_refresh_only_under_the_dir_lock | fs_lock/read_write_lock.cpp | false);\n      failed = refreshOnce(holdings, owner_->numbers); | false);\n      if (guard.held()) failed = refreshOnce(holdings, owner_->numbers); | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
rw_refresh_waits_1000_s_for_the_dir_lock | fs_lock/read_write_lock.cpp | constexpr double kRefreshDirLockSeconds = 1.0; | constexpr double kRefreshDirLockSeconds = 1000.0; | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
rw_refresh_every_50_s | fs_lock/read_write_lock.cpp | if (LoopWait::waitFor(context, untilRefresh(owner_->refreshedFiles()))) return; | if (LoopWait::waitFor(context, 10 * untilRefresh(owner_->refreshedFiles()))) return; | ^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
single_attempt_gives_up_on_a_busy_dir_lock | fs_lock/read_write_lock.cpp | constexpr double kSingleAttemptDirLockSeconds = 1.0; | constexpr double kSingleAttemptDirLockSeconds = 0.0; | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$
rw_release_in_a_forked_child | fs_lock/read_write_lock.cpp | if (holding->heldElsewhere()) return false; | | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$
rw_child_joins_the_parents_refresh | fs_lock/read_write_lock.cpp | if (holding->heldElsewhere()) {\n      // A forked child | if (holding->held()) {\n      // A forked child | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$
rw_nested_acquire_of_a_lost_lock | fs_lock/read_write_lock.cpp | if (holding->lost()) {\n    errno = ENOLCK; | if (false) {\n    errno = ENOLCK; | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$
rw_nested_release_off_by_one | fs_lock/read_write_lock.cpp | if (count > 1) {\n    --count; | if (count > 2) {\n    --count; | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$
# ---- On one host: registrations and the file watch ----
registration_lock_only_queried | fs_lock/this_host.cpp | hostLockControl(fd, F_OFD_SETLK, &lock) != 0 \|\| | hostLockControl(fd, F_OFD_GETLK, &lock) != 0 \|\| | ^fs_lock_test\.RwLockTest\.HandlesCountShareAndBlockEachOther$|^fs_lock_test\.RwLockTest\.HeldFilesAreRewrittenAndNothingStarvesTheRefresh$
registration_left_behind | fs_lock/this_host.cpp | hostUnlink(path_.c_str());\n  hostClose(fd_); | hostClose(fd_); | ^fs_lock_test\.FsLockTest\.ReentrantAcquireAndRelease$
registration_closed_across_exec | fs_lock/this_host.cpp | (keepAcrossExec ? 0 : O_CLOEXEC) | (keepAcrossExec ? O_CLOEXEC : 0) | @locks|@tool
watch_misses_moves | fs_lock/watch.cpp | constexpr uint32_t kChanges = IN_ATTRIB \| IN_DELETE_SELF \| IN_MOVE_SELF; | constexpr uint32_t kChanges = IN_ATTRIB \| IN_DELETE_SELF; | ^fs_lock_test\.FsLockTest\.AWaiterIsWokenWhenTheFileInItsWayMoves$
watch_sleeps_milliseconds_as_seconds | fs_lock/watch.cpp | const double seconds = std::min(ms / 1000.0, deadline.remaining()); | const double seconds = std::min(static_cast<double>(ms), deadline.remaining()); | ^fs_lock_test\.LockProcessTest\.OnOneHostTheKernelTellsWhatItKnows$|^fs_lock_test\.RwProcessTest\.FileTimesThatAreNotOneSteadyServerClockNeverDecideAlone$
# ---- Paths and trees ----
pattern_under_root_walks_the_working_directory | host/host_paths.cpp | size_t dirLen = slash == path ? 1 : static_cast<size_t>(slash - path); | size_t dirLen = static_cast<size_t>(slash - path); | @paths
listing_under_root_lists_the_working_directory | host/host_paths.cpp | size_t dirLen = slash == nullptr ? 0 : (slash == pathPattern ? 1 : slash - pathPattern); | size_t dirLen = slash == nullptr ? 0 : slash - pathPattern; | @paths
mkdirp_takes_a_plain_file_for_a_directory | paths/tree.cpp | if (koIsDirectory(prefix.c_str())) continue; | if (koFileOrDirExists(prefix.c_str())) continue; | @paths
removerf_true_for_a_missing_path | paths/tree.cpp | return oldMode != 0; | return true; | @paths
exists_false_for_two_matches | paths/dir_walker.cpp | return koFindMatchingFilesAndDirs(pattern, ignore, ignore, 0, true) == 1; | return koFindMatchingFilesAndDirs(pattern, ignore, ignore, 0, false) == 1; | @paths
trailing_slash_lists_nothing | paths/dir_walker.cpp | if (*name == '\\0') { | if (false) { | @paths
directory_size_of_the_top_level_only | paths/dir_walker.cpp | findMatching(pattern, AddFileSizes{&total}, 4096, false); | findMatching(pattern, AddFileSizes{&total}, 0, false); | @paths
collapse_keeps_dot_segments | paths/path_strings.cpp | if (len == 1 && r[0] == '.') { | if (len == 0 && r[0] == '.') { | @paths
add_sep_at_looks_one_too_far | paths/path_strings.cpp | koIsPathSep(static_cast<unsigned char>(path[pos - 1]))) return 0; | koIsPathSep(static_cast<unsigned char>(path[pos]))) return 0; | @paths
file_exists_true_for_directories | paths/path_strings.cpp | return hostStat(path, &st) == 0 && !S_ISDIR(st.st_mode); | return hostStat(path, &st) == 0; | @paths
available_space_without_the_reserve | paths/path_strings.cpp | static_cast<uint64_t>(fs.f_bfree); | static_cast<uint64_t>(fs.f_bavail); | @paths
temp_dir_from_tmpdir | paths/path_strings.cpp | const char* tmp = getenv("TMP"); | const char* tmp = getenv("TMPDIR"); | @paths
temp_dir_without_its_separator | paths/path_strings.cpp | koAddPathSep(tempDirBuffer); | | @paths
module_last_match_wins | paths/modules.cpp | if (score > bestScore_) { | if (score >= bestScore_) { | @paths
module_first_symbol_unchecked | paths/modules.cpp | for (unsigned long i = 0; i < symbolCount_; ++i) { | for (unsigned long i = 1; i < symbolCount_; ++i) { | @paths
# ---- Threads and the pool ----
pool_zero_idle_means_unlimited | threads/thread_pool.cpp | maxIdleThreads_ == kNoLimit \|\| | maxIdleThreads_ == 0 \|\| | @threads
pool_makes_one_thread_too_many | threads/thread_pool.cpp | for (unsigned long i = 0; i < initialThreads; ++i) { | for (unsigned long i = 0; i <= initialThreads; ++i) { | @threads
recycled_body_kept_alive | threads/thread_pool.cpp | recycled->reset(boost::function0<void*>(&do_nothing)); | | @threads
invalid_state_detail_lost | threads/thread.cpp | const size_t prefix = sizeof kInvalidStatePrefix - 1; | const size_t prefix = sizeof kInvalidStatePrefix; | @threads
loop_second_start_not_counted | include/korvel/threads.h | ++useCount_; | | @threads
cpu_quota_rounded_up | host/host_threads.cpp | usable = std::min<long long>(usable, quota / period); | usable = std::min<long long>(usable, (quota + period - 1) / period); | @threads
# ---- Named semaphores and their messages ----
sem_created_taken | include/korvel/ipc.h | int32_t initialValue_ = 1; | int32_t initialValue_ = 0; | @ipc
sem_slash_test_inverted | ipc/semaphore.cpp | if (name[0] != '/') name_ = "/"; | if (name[0] == '/') name_ = "/"; | @ipc
sem_name_at_the_limit_reported | ipc/semaphore.cpp | if (name_.size() > static_cast<size_t>(kMaxNameLength)) { | if (name_.size() >= static_cast<size_t>(kMaxNameLength)) { | @ipc
sem_shortened_from_the_end | ipc/semaphore.cpp | name_.erase(1, 1); | name_.erase(name_.size() - 1, 1); | @ipc
sem_open_failure_error_not_kept | ipc/semaphore.cpp | lastError_ = errno;\n  koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_OPEN_FAILED, | koReportSemMessage(&koSemReporter, stderr, KORVEL_SEM_OPEN_FAILED, | @ipc
sem_release_keeps_ownership | ipc/semaphore.cpp | ownsLock_ = false;\n  return posted; | return posted; | @ipc
catalogue_pairs_misread | host/host_messages.cpp | ++i, pair += 2) { | ++i, pair += 1) { | @ipc
report_without_newline | ipc/sem_messages.cpp | reporter->text[n] = '\\n'; | | @ipc
report_length_off_by_one | ipc/sem_messages.cpp | return n + 2; | return n + 1; | @ipc
# ---- korvel-lock ----
tool_wait_in_milliseconds | tools/korvel_lock.cpp | const double deadline = o.timed ? start + o.waitSeconds : -1.0; | const double deadline = o.timed ? start + o.waitSeconds / 1000.0 : -1.0; | @tool
tool_nonblock_waits_forever | tools/korvel_lock.cpp | case 'n':\n        o.timed = true; | case 'n':\n        o.timed = false; | @tool
# Survives: it changes only how soon after the owner's removal the tool
# gets in (a second with the cap, longer without); no status or file differs.
tool_retry_back_off_uncapped | tools/korvel_lock.cpp | backOffMs = std::min(backOffMs * 2, 1000u); | backOffMs = backOffMs * 2; | @tool
tool_conflict_exit_code_ignored | tools/korvel_lock.cpp | return o.conflictStatus; | return kDefaultConflict; | @tool
tool_shared_and_exclusive_swapped | tools/korvel_lock.cpp | o.shared ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(reading) : writing; | !o.shared ? static_cast<koDirectoryReadWriteLock::AbstractLock&>(reading) : writing; | @tool
tool_c_without_dash_c | tools/korvel_lock.cpp | o.command = {"/bin/sh", "-c", commandLine}; | o.command = {"/bin/sh", commandLine}; | @tool
tool_signal_status_without_128 | tools/korvel_lock.cpp | return kSignalBase + WTERMSIG(status); | return WTERMSIG(status); | @tool
tool_missing_command_exits_126 | tools/korvel_lock.cpp | _exit(error == ENOENT ? kCommandNotFound : kCannotExecute); | _exit(kCannotExecute); | @tool
tool_loss_exit_status_dropped | tools/korvel_lock.cpp | return o.ignoreLoss ? status : kLockLost; | return status; | @tool
tool_status_needs_write_access | tools/korvel_lock.cpp | checkDirectory(o.directory, "examine", false); | checkDirectory(o.directory, "examine", true); | @tool
tool_status_stale_before_held | tools/korvel_lock.cpp | return foreign ? kStatusForeign : live ? kStatusHeld : stale ? kStatusStale : kStatusFree; | return foreign ? kStatusForeign : stale ? kStatusStale : live ? kStatusHeld : kStatusFree; | @tool
tool_clean_trusts_the_server_clock | tools/korvel_lock.cpp | } else if (!isDead(file)) { | } else if (!isDead(file) && !korvel_tool::isStale(file, now)) { | @tool
tool_file_exactly_15_s_old_is_stale | tools/lock_files.cpp | ageOf(file, now) > korvel_protocol::kStaleSeconds; | ageOf(file, now) >= korvel_protocol::kStaleSeconds; | @tool
EOF

# The family macros, each a ctest regex of its own; a fault's regex may
# join them as alternatives.
expand_regex() {
  local re=$1
  local locks='^fs_lock_test\.|^lock_explorer_calm$'
  local paths='^(paths_test|modules_test|host_override_test)\.|^path_fuzz'
  local threads='^threads_test\.'
  local ipc='^(semaphore_test|ipc_host_services_test)\.'
  local tool='^korvel_lock_test\.'
  re=${re//@locks/"$locks"}
  re=${re//@paths/"$paths"}
  re=${re//@threads/"$threads"}
  re=${re//@ipc/"$ipc"}
  re=${re//@tool/"$tool"}
  echo "$re"
}

# The build targets that the tests selected by the regex $1 run: a test
# binary is the first part of its tests' names, and builds what it runs
# (lock_child, korvel-lock). Prints "--target T..." or nothing for all.
targets_of() {
  local names
  names=$(ctest --test-dir "$build" -N -R "$1" | sed -n 's/^ *Test *#[0-9]*: //p' |
    while read -r t; do
      case "$t" in
        *.*) echo "${t%%.*}" ;;
        lock_explorer*) echo lock_explorer ;;
        *) echo all ;;
      esac
    done | sort -u)
  if [ -n "$names" ] && ! grep -qx all <<<"$names"; then
    echo "--target" $names
  fi
}

# Field decoding; "\|" was turned into \x01 before the line was split.
decode() {
  local s=$1
  s=${s//'\\'/$'\x02'}
  s=${s//'\n'/$'\n'}
  s=${s//$'\x02'/\\}
  s=${s//$'\x01'/|}
  printf '%s' "$s"
}

# How often the text $2 occurs in the file $1 (0 when there is no file).
occurrences() {
  [ -f "$1" ] && [ -n "$2" ] || {
    echo 0
    return
  }
  local content without
  content=$(
    cat "$1"
    printf x
  )
  content=${content%x}
  without=${content//"$2"/}
  echo $(((${#content} - ${#without}) / ${#2}))
}

trim() {
  local s=$1
  s=${s#"${s%%[![:space:]]*}"}
  s=${s%"${s##*[![:space:]]}"}
  printf '%s' "$s"
}

# The whole run is one function, read before it starts: editing this file
# while it runs cannot change what it does.
main() {
  check_only=false
  set_name=all
  filter=""
  while [ $# -gt 0 ]; do
    case "$1" in
      --check) check_only=true ;;
      --set)
        [ $# -ge 2 ] || {
          echo "mutants.sh: --set needs first, blind or all" >&2
          exit 2
        }
        set_name=$2
        shift
        ;;
      --set=*) set_name=${1#--set=} ;;
      -*)
        echo "mutants.sh: unknown option $1" >&2
        exit 2
        ;;
      *)
        if [ -n "$filter" ]; then
          echo "mutants.sh: one REGEX only" >&2
          exit 2
        fi
        filter=$1
        ;;
    esac
    shift
  done
  case "$set_name" in
    first) faults=$FIRST_FAULTS ;;
    blind) faults=$BLIND_FAULTS ;;
    all) faults=$FIRST_FAULTS$'\n'$BLIND_FAULTS ;;
    *)
      echo "mutants.sh: --set takes first, blind or all, not '$set_name'" >&2
      exit 2
      ;;
  esac
  # One scratch copy per work tree: two trees never share one.
  scratch=${KORVEL_MUTANTS_DIR:-/tmp/korvel-mutants.$(pwd | md5sum | cut -c1-8)}
  src=$scratch/src
  build=$scratch/build
  logs=$scratch/logs
  jobs=2
  stop=--stop-on-failure
  [ "${KORVEL_MUTANTS_FULL:-0}" = 1 ] && stop=""

  # ---- The list ----
  names=() files=() texts=() repls=() regexes=()
  declare -A named=()
  while IFS= read -r line; do
    [[ -z "${line//[[:space:]]/}" || "$line" =~ ^[[:space:]]*# ]] && continue
    fields=${line//'\|'/$'\x01'}
    pipes=${fields//[^|]/}
    if [ ${#pipes} -lt 4 ]; then
      echo "mutants.sh: malformed line: $line" >&2
      exit 2
    fi
    name=${fields%%|*} && fields=${fields#*|}
    file=${fields%%|*} && fields=${fields#*|}
    text=${fields%%|*} && fields=${fields#*|}
    repl=${fields%%|*} && regex=${fields#*|}
    name=$(trim "$name")
    if [ -n "${named[$name]:-}" ]; then
      echo "mutants.sh: the name $name is used twice" >&2
      exit 2
    fi
    named[$name]=1
    [ -n "$filter" ] && ! [[ "$name" =~ $filter ]] && continue
    names+=("$name")
    files+=("$(trim "$file")")
    texts+=("$(decode "$(trim "$text")")")
    repls+=("$(decode "$(trim "$repl")")")
    regexes+=("$(expand_regex "$(trim "${regex//$'\x01'/\\|}")")")
  done <<<"$faults"
  total=${#names[@]}
  if [ "$total" -eq 0 ]; then
    echo "mutants.sh: no fault matches '$filter'" >&2
    exit 2
  fi

  if $check_only; then
    status=0
    applying=0
    for ((i = 0; i < total; i++)); do
      n=$(occurrences "${files[$i]}" "${texts[$i]}")
      if [ "$n" -eq 1 ]; then
        applying=$((applying + 1))
        printf '%-15s %s\n' "applies" "${names[$i]}"
      else
        printf '%-15s %s (found %d times in %s)\n' "does not apply" "${names[$i]}" "$n" "${files[$i]}"
        status=1
      fi
    done
    echo "$applying of $total faults apply (set $set_name)"
    exit $status
  fi

  # ---- The scratch copy: tracked and new files, copied only when changed,
  # so that the incremental build sees a fresh time stamp on each change ----
  mkdir -p "$src" "$logs"
  git ls-files -z --cached --others --exclude-standard | while IFS= read -r -d '' f; do
    [ -f "$f" ] || continue
    if ! cmp -s "$f" "$src/$f"; then
      mkdir -p "$src/$(dirname "$f")"
      cp "$f" "$src/$f"
    fi
  done

  # With ccache, putting a file back after its fault costs no compile.
  launcher=()
  if command -v ccache >/dev/null; then
    export CCACHE_DIR=$scratch/ccache
    launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  echo "building the scratch copy in $build ..."
  if ! { cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKORVEL_BUILD_BENCH=OFF -DKORVEL_BUILD_EXAMPLES=OFF -DKORVEL_WERROR=OFF \
    -DKORVEL_TEST_TIMEOUT=30 "${launcher[@]}" &&
    cmake --build "$build" -j "$jobs"; } >"$logs/build.log" 2>&1; then
    echo "mutants.sh: the unchanged tree does not build; see $logs/build.log" >&2
    exit 2
  fi

  # A fault is tried only when its text is found exactly once and its regex
  # selects tests; those tests must pass unchanged, else a "kill" would mean
  # nothing.
  declare -A selects=() targets=()
  labels=()
  union=""
  for ((i = 0; i < total; i++)); do
    labels+=("")
    n=$(occurrences "$src/${files[$i]}" "${texts[$i]}")
    if [ "$n" -ne 1 ]; then
      labels[i]="does not apply"
      echo "found $n times in ${files[$i]}" >"$logs/${names[$i]}.log"
      continue
    fi
    re=${regexes[$i]}
    if [ -z "${selects[$re]:-}" ]; then
      selects[$re]=$(ctest --test-dir "$build" -N -R "$re" | sed -n 's/^Total Tests: //p')
      [ "${selects[$re]:-0}" -gt 0 ] && union+="${union:+|}$re"
      targets[$re]=$(targets_of "$re")
    fi
    if [ "${selects[$re]:-0}" -eq 0 ]; then
      labels[i]="selects no test"
      echo "'$re' selects no test" >"$logs/${names[$i]}.log"
    fi
  done
  echo "checking that the selected tests pass unchanged ..."
  if [ -n "$union" ] && ! ctest --test-dir "$build" -j "$jobs" -R "$union" >"$logs/baseline.log" 2>&1; then
    echo "mutants.sh: tests fail without any fault; see $logs/baseline.log" >&2
    exit 2
  fi

  # ---- One fault at a time ----
  current=""
  restore() {
    if [ -n "$current" ]; then
      cp "$current.orig" "$current" && rm -f "$current.orig"
      current=""
    fi
  }
  trap 'restore; exit 130' INT TERM

  killed=() survived=() inapplicable=() unselected=() unbuildable=()
  for ((i = 0; i < total; i++)); do
    name=${names[$i]}
    target=$src/${files[$i]}
    text=${texts[$i]}
    repl=${repls[$i]}
    log=$logs/$name.log
    started=$SECONDS
    label=${labels[$i]}
    if [ -z "$label" ]; then
      content=$(
        cat "$target"
        printf x
      )
      content=${content%x}
      cp "$target" "$target.orig"
      current=$target
      printf '%s' "${content/"$text"/"$repl"}" >"$target"
      # shellcheck disable=SC2086 # a list of targets, or none for all
      if ! cmake --build "$build" -j "$jobs" ${targets[${regexes[$i]}]} >"$log" 2>&1; then
        label="build failed"
      elif ctest --test-dir "$build" -j "$jobs" $stop -R "${regexes[$i]}" >>"$log" 2>&1; then
        label="SURVIVED"
      else
        label="killed"
      fi
      restore
    fi
    case "$label" in
      killed) killed+=("$name") ;;
      SURVIVED) survived+=("$name") ;;
      "does not apply") inapplicable+=("$name") ;;
      "selects no test") unselected+=("$name") ;;
      "build failed") unbuildable+=("$name") ;;
    esac
    printf '[%2d/%d] %-15s %-40s %4d s\n' $((i + 1)) "$total" "$label" "$name" $((SECONDS - started))
  done
  # Leave the scratch build matching the tree again.
  cmake --build "$build" -j "$jobs" >/dev/null 2>&1

  echo
  echo "killed ${#killed[@]} of $total"
  echo "survived: ${survived[*]:-none}"
  echo "does not apply: ${inapplicable[*]:-none}"
  echo "selects no test: ${unselected[*]:-none}"
  echo "build failed: ${unbuildable[*]:-none}"
}

main "$@"; exit  # one line: bash has read all it runs before main starts
