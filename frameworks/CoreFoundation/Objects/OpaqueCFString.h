#pragma once

// The object behind CFStringRef, which Foundation calls NSString. C++ only.

#include <CoreFoundation/CFBase.h>
#include <runtime/NSObject.h>

#include <string>
#include <utility>

struct OpaqueCFString final : NSObject {
 public:
  explicit OpaqueCFString(std::string text) : _text(std::move(text)) {}

  const std::string& text() const noexcept { return _text; }

  /// A string that lives as long as the process; not counted as a live object. The same text gives the same
  /// object. Any thread.
  static CFStringRef constant(const char* text);

 private:
  std::string _text;
};
