#pragma once

// The terminal's standard error: whole lines from any thread, and under them one line of progress that is
// rewritten in place. Away from a terminal the progress becomes ordinary lines.

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace brvhost {

class Console {
 public:
  /// Writes to `stream`, which stays the caller's. `rewritesProgress`: whether it is a terminal.
  Console(std::FILE* stream, bool rewritesProgress) : _stream(stream), _rewritesProgress(rewritesProgress) {}
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// Standard error, with progress in place when it is a terminal.
  static Console& standardError();

  /// Writes one line; a line end at the end of `text` is optional. Any thread. Never throws.
  void line(std::string_view text) noexcept;

  /// Shows `text` as the progress, in place of the earlier one. Never throws.
  void progress(const std::string& text) noexcept;

  /// Leaves the last progress standing and begins a new line.
  void endProgress() noexcept;

 private:
  void rewrite(std::string_view text) noexcept;

  std::FILE* const _stream;
  const bool _rewritesProgress;
  std::mutex _mutex;
  std::string _progress;
};

}  // namespace brvhost
