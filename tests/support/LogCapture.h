#pragma once

// Records what the module logs, as a host's log callback would.

#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

#include "AVLog.h"

class LogCapture {
 public:
  LogCapture() { AV::setLog(record, this, 400, 100); }
  ~LogCapture() { AV::setLog(nullptr, nullptr, 0, 0); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// "LEVEL MESSAGE" for each line so far.
  std::vector<std::string> lines() const {
    std::lock_guard lock(_lock);
    return _lines;
  }

 private:
  static void record(void* context, int level, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    static_cast<void>(va_arg(arguments, const char*));
    const char* message = va_arg(arguments, const char*);
    auto* capture = static_cast<LogCapture*>(context);
    {
      std::lock_guard lock(capture->_lock);
      capture->_lines.push_back(std::to_string(level) + " " + message);
    }
    va_end(arguments);
  }

  mutable std::mutex _lock;
  std::vector<std::string> _lines;
};
