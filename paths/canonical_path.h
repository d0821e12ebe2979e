// The steps of koCanonicalizePath, internal to the library. They are
// declared here so that tests can run each one on buffers of their own.
//
// A path in the making is a PathText: its first `length` characters at
// `text`. The text may go on past them (trailing blanks are cut by length
// only) but is always NUL-terminated somewhere. "Buffer" below means a
// buffer of KORVEL_PATH_BUFFER_SIZE bytes; every step writes at most that,
// NUL included, into one.
#ifndef KORVEL_PATHS_CANONICAL_PATH_H_
#define KORVEL_PATHS_CANONICAL_PATH_H_

#include <cstddef>

namespace canonical {

struct PathText {
  const char* text;
  size_t length;
};

// Appends at most what fits of src to the NUL-terminated text in dst, a
// buffer of dstSize bytes: the result has at most dstSize - 1 characters.
void appendBounded(char* dst, size_t dstSize, const char* src);

// realpath() of path into dst (dstSize bytes) when the result fits; returns
// dst, or null with dst untouched.
char* resolveInto(char* dst, size_t dstSize, const char* path);

// At most inLen characters of in, never read past its NUL, with leading
// blanks skipped and trailing ones cut by length only; "." when nothing is
// left. The text stays in in when in is NUL-terminated right at inLen (or
// inLen exceeds the buffers); otherwise it is copied, at most a buffer
// full, into copy.
PathText trimInput(const char* in, size_t inLen, char* copy);

// Finds the longest prefix of path, cut before one of its '/', that
// realpath resolves (a leading '/' stands for the root as "/"), and writes
// into dst (a buffer) the resolved prefix, a '/' and the rest of path, cut
// to fit. Returns false, with dst untouched, when no prefix resolves. path
// is cut in place during the call and restored. Same answer as trying
// every prefix from the longest down.
bool resolveExistingPrefix(char* dst, char* path);

// path with a leading "~" or "~user" expanded into dst (a buffer), or path
// itself when it has none that can be expanded.
PathText expandTilde(char* dst, PathText path);

// A relative path made absolute in out (outSize + 1 bytes): the working
// directory, a '/', then path, at most outSize - 1 characters in all. When
// path is in out it is first moved, at most a buffer full, into copy (a
// buffer that does not hold path). An absolute path comes back unchanged;
// so does a relative one when the working directory is unknown or leaves no
// room.
PathText makeAbsolute(char* out, size_t outSize, PathText path, char* copy);

}  // namespace canonical

#endif  // KORVEL_PATHS_CANONICAL_PATH_H_
