// koPathString_: a string that keeps itself normalised. Every assignment
// stores the text and then applies the normaliser; by default runs of
// slashes collapse to one and surrounding white space is trimmed.
#ifndef KORVEL_PATHS_PATH_STRING_H_
#define KORVEL_PATHS_PATH_STRING_H_

#include <boost/shared_ptr.hpp>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "host/host.h"

template <class T>
class koStringNormalizer {
 public:
  virtual ~koStringNormalizer() = default;
  // Assigns length characters of text to value, then normalises it.
  virtual void assign(std::string& value, const char* text, size_t length) {
    value.assign(text, length);
    normalize(value);
  }
  virtual void normalize(std::string& value) = 0;
};

template <class T>
class koWellFormedPathNormalizer : public koStringNormalizer<T> {
 public:
  void normalize(std::string& value) override {
    static const char kBlanks[] = " \t\v\b\n\r\f";
    if (!value.empty()) {
      // Collapse "//" in place with the host's multibyte-aware search.
      std::vector<char> text(value.begin(), value.end());
      text.push_back('\0');
      size_t length = value.size();
      bool removed = false;
      const char* hit;
      while ((hit = hostMultiByteStrStr(text.data(), "//")) != nullptr) {
        char* at = text.data() + (hit - text.data());
        memmove(at, at + 1, strlen(at + 1) + 1);
        --length;
        removed = true;
      }
      if (removed) value.assign(text.data(), length);
    }
    value.erase(0, value.find_first_not_of(kBlanks));
    size_t last = value.find_last_not_of(kBlanks);
    value.erase(last == std::string::npos ? 0 : last + 1);
  }
};

template <class String>
class koPathString_ {
 public:
  koPathString_() : normalizer_(new koWellFormedPathNormalizer<koPathString_>()) {}
  koPathString_(const char* text) : koPathString_() { assign(text, strlen(text)); }  // NOLINT
  koPathString_(const String& text) : koPathString_() {                              // NOLINT
    assign(text.data(), text.size());
  }

  koPathString_& operator=(const String& text) {
    assign(text.data(), text.size());
    return *this;
  }
  koPathString_& operator=(const char* text) {
    assign(text, strlen(text));
    return *this;
  }
  void assign(const char* text, size_t length) { normalizer_->assign(value_, text, length); }

  const String& str() const { return value_; }
  const char* c_str() const { return value_.c_str(); }
  operator const String&() const { return value_; }  // NOLINT

  // The components between separators; a leading separator belongs to the
  // first component ("/a/b" gives "/a", "b").
  std::vector<String> components() const {
    std::vector<String> parts;
    size_t start = 0;
    while (start < value_.size()) {
      size_t end = value_.find('/', start == 0 && value_[0] == '/' ? 1 : start);
      if (end == String::npos) end = value_.size();
      if (end > start) parts.push_back(value_.substr(start, end - start));
      start = end + 1;
    }
    return parts;
  }
  // This path with one more component, one '/' between them.
  koPathString_ join(const String& component) const {
    if (value_.empty()) return koPathString_(component);
    return koPathString_(value_ + "/" + component);
  }

 private:
  String value_;
  boost::shared_ptr<koStringNormalizer<koPathString_>> normalizer_;
};

template <class String>
std::ostream& operator<<(std::ostream& out, const koPathString_<String>& path) {
  return out << path.str();
}

typedef koPathString_<std::string> koPathString;

#endif  // KORVEL_PATHS_PATH_STRING_H_
