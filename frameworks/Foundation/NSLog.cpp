#include <Foundation/NSLog.h>

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <new>
#include <string>

namespace {

std::string linePrefix() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char date[32] = "";
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);

  char prefix[128];
  std::snprintf(prefix, sizeof prefix, "%s.%03d %.40s[%d:%d] ", date, static_cast<int>(now.tv_usec / 1000),
                program_invocation_short_name, static_cast<int>(getpid()), static_cast<int>(gettid()));
  return prefix;
}

[[gnu::format(printf, 2, 0)]] void appendFormatted(std::string& line, const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length <= 0) return;

  const std::size_t start = line.size();
  line.resize(start + static_cast<std::size_t>(length) + 1);
  std::vsnprintf(line.data() + start, static_cast<std::size_t>(length) + 1, format, arguments);
  line.pop_back();
}

void writeToStandardError(const std::string& line) {
  for (std::size_t written = 0; written < line.size();) {
    const ssize_t count = write(STDERR_FILENO, line.data() + written, line.size() - written);
    if (count > 0) {
      written += static_cast<std::size_t>(count);
    } else if (count == 0 || errno != EINTR) {
      return;
    }
  }
}

}  // namespace

void NSLog(const char* format, ...) {
  if (!format) return;
  const int savedError = errno;
  va_list arguments;
  va_start(arguments, format);
  try {
    std::string line = linePrefix();
    appendFormatted(line, format, arguments);
    if (line.back() != '\n') line += '\n';
    writeToStandardError(line);
  } catch (const std::bad_alloc&) {
    // A message is not worth more than the process.
  }
  va_end(arguments);
  errno = savedError;
}
