#pragma once

// Records what the module logs, as a host's log callback would.

#include <gtest/gtest.h>

#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

#include "AVLog.h"

class LogCapture {
 public:
  LogCapture() { listen(); }
  ~LogCapture() { AV::setLog(nullptr, nullptr, 0, 0); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Registers it as a host does, or without a context.
  void listen(bool hasContext = true) { AV::setLog(record, hasContext ? this : nullptr, 400, 100); }

  /// "LEVEL MESSAGE" for each line so far.
  std::vector<std::string> lines() const {
    std::lock_guard lock(_lock);
    return _lines;
  }
  /// The name and line of each line's call site, and how often it was passed over.
  std::vector<std::string> keys() const {
    std::lock_guard lock(_lock);
    return _keys;
  }

 private:
  static void record(void* context, int level, const char* format, ...) {
    EXPECT_STREQ(format, "%s    %s");
    std::va_list arguments;
    va_start(arguments, format);
    auto* capture = static_cast<LogCapture*>(context);
    const std::lock_guard lock(capture->_lock);
    capture->_keys.emplace_back(va_arg(arguments, const char*));
    capture->_lines.push_back(std::to_string(level) + " " + va_arg(arguments, const char*));
    va_end(arguments);
  }

  mutable std::mutex _lock;
  std::vector<std::string> _lines, _keys;
};
