#pragma once

// How the host reports what went wrong: thrown by whatever notices, caught once in main (and at the end of each
// writer thread), never let out into a callback of the module.

#include <cstdarg>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace brvhost {

enum ExitCode { ExitDone = 0, ExitFailed = 1, ExitWrongUse = 2 };

/// Something could not be done; the message is for people and names the file or source concerned.
class Failure : public std::runtime_error {
 public:
  explicit Failure(const std::string& message, ExitCode exitCode = ExitFailed)
      : std::runtime_error(message), _exitCode(exitCode) {}

  ExitCode exitCode() const noexcept { return _exitCode; }

 private:
  ExitCode _exitCode;
};

/// The command line asks for something that does not exist or makes no sense.
class UsageError : public Failure {
 public:
  explicit UsageError(const std::string& message) : Failure(message, ExitWrongUse) {}
};

/// printf into a string.
__attribute__((format(printf, 1, 2))) inline std::string formatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);

  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

}  // namespace brvhost
