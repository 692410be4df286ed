#include "common/Console.h"

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
  const std::lock_guard lock(_mutex);
  if (!_progress.empty()) std::fputs(ClearLine, _stream);
  std::fwrite(text.data(), 1, text.size(), _stream);
  std::fputc('\n', _stream);
  if (!_progress.empty()) rewrite(_progress);
  std::fflush(_stream);
}

void Console::progress(const std::string& text) noexcept {
  if (!_rewritesProgress) {
    line(text);
    return;
  }
  const std::lock_guard lock(_mutex);
  rewrite(text);
  std::fflush(_stream);
  try {
    _progress = text;
  } catch (...) {
    _progress.clear();  // the line on the screen is then only not redrawn after the next log line
  }
}

void Console::endProgress() noexcept {
  const std::lock_guard lock(_mutex);
  if (_progress.empty()) return;
  _progress.clear();
  std::fputc('\n', _stream);
  std::fflush(_stream);
}

void Console::rewrite(std::string_view text) noexcept {
  std::fputs(ClearLine, _stream);
  std::fwrite(text.data(), 1, text.size(), _stream);
}

}  // namespace brvhost
