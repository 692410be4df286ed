#include "Console.h"

#include <unistd.h>

namespace brvhost {

namespace {

constexpr const char* ClearLine = "\r\033[K";

std::string_view withoutLineEnd(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  return text;
}

}  // namespace

Console& Console::standardError() {
  static Console console(stderr, ::isatty(STDERR_FILENO) == 1);
  return console;
}

void Console::line(std::string_view text) noexcept {
  text = withoutLineEnd(text);
  const std::lock_guard lock(mutex_);
  if (!progress_.empty()) std::fputs(ClearLine, stream_);
  std::fwrite(text.data(), 1, text.size(), stream_);
  std::fputc('\n', stream_);
  if (!progress_.empty()) rewrite(progress_);
  std::fflush(stream_);
}

void Console::progress(const std::string& text) noexcept {
  if (!rewritesProgress_) {
    line(text);
    return;
  }
  const std::lock_guard lock(mutex_);
  rewrite(text);
  std::fflush(stream_);
  try {
    progress_ = text;
  } catch (...) {
    progress_.clear();  // the line on the screen is then only not redrawn after the next log line
  }
}

void Console::endProgress() noexcept {
  const std::lock_guard lock(mutex_);
  if (progress_.empty()) return;
  progress_.clear();
  std::fputc('\n', stream_);
  std::fflush(stream_);
}

void Console::rewrite(std::string_view text) noexcept {
  std::fputs(ClearLine, stream_);
  std::fwrite(text.data(), 1, text.size(), stream_);
}

}  // namespace brvhost
