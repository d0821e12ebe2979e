#include "tests/explorer/schedule.h"

#include <cstdio>
#include <cstring>

namespace explorer {

std::string Fault::encode() const {
  char text[128];
  snprintf(text, sizeof text, "%c:%d:%d:%d:%.3f:%d:%.3f:%d", kind, call, target, afterCall ? 1 : 0,
           at, skip, seconds, error);
  return text;
}

Fault Fault::decode(const std::string& text) {
  Fault f;
  int after = 0;
  sscanf(text.c_str(), "%c:%d:%d:%d:%lf:%d:%lf:%d", &f.kind, &f.call, &f.target, &after, &f.at,
         &f.skip, &f.seconds, &f.error);
  f.afterCall = after != 0;
  return f;
}

std::string Fault::words() const {
  static const char* const ordinal[] = {"first", "2nd", "3rd", "4th"};
  char text[192];
  const char* which = ordinal[skip < 4 ? skip : 3];
  if (kind == 'f') {
    snprintf(text, sizeof text, "its %s %s%s from %.1f s fails with %s", which, kCallNames[call],
             kTargetNames[target], at, strerrorname_np(error));
  } else if (kind == 's') {
    snprintf(text, sizeof text, "its %s %s%s from %.1f s hangs %.1f s (%s)", which,
             kCallNames[call], kTargetNames[target], at, seconds,
             afterCall ? "the answer is late" : "before it reaches the server");
  } else {
    snprintf(text, sizeof text, "the thread making its %s %s%s from %.1f s pauses %.1f s after it",
             which, kCallNames[call], kTargetNames[target], at, seconds);
  }
  return text;
}

bool targets(int target, const char* path) {
  const char* slash = strrchr(path, '/');
  const char* name = slash != nullptr ? slash + 1 : path;
  switch (target) {
    case kWriteLock:
      return strcmp(name, ".deploy_write_lock") == 0;
    case kReadLock:
      return strncmp(name, ".deploy_read_lock.", 18) == 0;
    case kLevel0:
      return strcmp(name, ".deploy_lock.0") == 0;
    case kQueueLevel:
      return strncmp(name, ".deploy_lock.", 13) == 0 && strcmp(name + 13, "0") != 0;
    case kTempFile:
      return name[0] == '.' && name[1] >= '0' && name[1] <= '9';
    default:
      return true;
  }
}

double offsetAt(const std::vector<Step>& steps, double t) {
  double sum = 0.0;
  for (const Step& s : steps) sum += s.at <= t ? s.delta : 0.0;
  return sum;
}

}  // namespace explorer
