#include <lumora/Utf8.h>
#include <lumora/zTrace.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

void writeLineToStandardError(const char* note) noexcept {
  const std::string_view text(note);
  const bool hasLineEnd = !text.empty() && text.back() == '\n';
  std::fprintf(stderr, hasLineEnd ? "%s" : "%s\n", note);
}

}  // namespace

zTrace& zTrace::Default() {
  static auto* const trace = new zTrace;
  return *trace;
}

void zTrace::TraceNote(const char* format, ...) noexcept {
  if (!format) return;

  char note[MaximumNoteLength + 1];
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(note, sizeof note, format, arguments);
  va_end(arguments);

  if (length < 0) {
    // An argument that cannot be converted: the bare format still tells what happened.
    std::snprintf(note, sizeof note, "%s", format);
  }
  if (length < 0 || static_cast<std::size_t>(length) > MaximumNoteLength) {
    note[lumora::withoutSplitTail(note).size()] = '\0';
  }
  Deliver(note);
}

void zTrace::Deliver(const char* note) noexcept {
  const std::lock_guard guard(_lock);
  // A copy, because a sink may replace itself while it runs.
  const std::shared_ptr<const Sink> sink = _sink;
  if (!sink || _delivering) {
    writeLineToStandardError(note);
    return;
  }
  _delivering = true;
  try {
    (*sink)(note);
  } catch (...) {
    writeLineToStandardError(note);
  }
  _delivering = false;
}

void zTrace::SetSink(Sink sink) {
  auto shared = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  const std::lock_guard guard(_lock);
  _sink.swap(shared);
}
