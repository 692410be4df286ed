#pragma once

// The string object behind CFStringRef. Only C interfaces and dictionary keys need it; everywhere else
// a string is a std::string in UTF-8.

#include <CoreFoundation/CFString.h>
#include <runtime/NSObject.h>

#include <string>

class NSString final : public NSObject {
 public:
  explicit NSString(std::string text) : _text(std::move(text)) {}

  const std::string& text() const noexcept { return _text; }

  /// A string that lives as long as the process; not counted as a live object. The same text gives the same
  /// object. Any thread.
  static CFStringRef constant(const char* text);

  static const NSString* from(CFStringRef string) noexcept { return reinterpret_cast<const NSString*>(string); }
  CFStringRef toCF() const noexcept { return reinterpret_cast<CFStringRef>(this); }

 private:
  std::string _text;
};
