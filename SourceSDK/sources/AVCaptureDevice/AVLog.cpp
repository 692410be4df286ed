#include "AVLog.h"

#include <Foundation/NSPathUtilities.h>
#include <runtime/Scheduler.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <forward_list>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>

std::int32_t AV_LogCount::logCount() {
  constexpr std::int64_t LongestPause = 5 * runtime::NanosecondsPerSecond;
  const std::int64_t time = runtime::Scheduler::current().roughNow();
  if (_lastLogTime && time - *_lastLogTime > LongestPause) _logCount = 0;
  _lastLogTime = time;
  return _logCount++;
}

namespace AV {

/// One count for each file name and line. A burst does not pay for cutting the name out of the path and writing a key
/// of name and line, which would cost several times as much as all the rest of a suppressed call: call sites are found
/// by line and path as they come.
struct LogTable {
  using Counts = std::map<std::string, AV_LogCount>;
  struct CallSite {
    std::string path;
    std::int32_t line;
    Counts::value_type* count;
  };

  Counts counts;
  std::array<std::forward_list<CallSite>, 256> callSites;  ///< by the low bits of the line
};

// What the last registration left, guarded by g_logLock. Nothing here has a destructor that would run when the module
// is unloaded or the process ends, so that a thread may log as late as it likes.
BRV_LogCallback _log = nullptr;
void* pLogContext = nullptr;
LogTable* g_pLogTable = nullptr;
std::int32_t g_maxLogCount = 0;
std::int32_t g_minLogCount = 0;
std::int32_t g_netLogCount = 0;

namespace {

constinit std::mutex g_logLock;

/// Calls of the host's callback in progress: those of the present registration and those of the one before.
constinit std::array<std::atomic<int>, 2> g_runningCalls{};
std::size_t g_registration = 0;

/// How many of those this thread is in.
thread_local std::array<int, 2> callsOnThisThread{};

constexpr std::size_t MessageSize = 512;
using Message = std::array<char, MessageSize>;

/// Ends a text that was cut at the end of the buffer before the character that did not fit.
void endAtCharacter(Message& message) {
  std::size_t end = MessageSize - 1;
  std::size_t start = end;
  while (start > 0 && end - start < 3 && (static_cast<unsigned char>(message[start - 1]) & 0xC0) == 0x80) --start;
  if (start == 0) return;
  const auto lead = static_cast<unsigned char>(message[start - 1]);
  const std::size_t needed = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
  if (needed > 1 && end - (start - 1) < needed) message[start - 1] = '\0';
}

/// Longer file names are cut, so that every key fits.
constexpr std::size_t LongestFileName = 255;
using Key = std::array<char, LongestFileName + 48>;

/// The count of a call site, made at its first call; null when there is no memory for it.
LogTable::Counts::value_type* countOf(const char* path, std::int32_t line) {
  auto& callSites = g_pLogTable->callSites[static_cast<std::uint32_t>(line) % g_pLogTable->callSites.size()];
  for (const auto& site : callSites) {
    if (site.line == line && std::strcmp(site.path.c_str(), path) == 0) return site.count;
  }
  try {
    std::string key(lastPathComponent(path).substr(0, LongestFileName));
    key += ':' + std::to_string(static_cast<std::uint32_t>(line));
    auto& count = *g_pLogTable->counts.try_emplace(std::move(key)).first;
    callSites.push_front({path, line, &count});
    return &count;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

enum class Verdict { suppress, emit, summarise };

Verdict decide(AV_LogCount& record) {
  const std::int32_t count = record.logCount();
  if (count > g_maxLogCount) {
    record.setLogCount(g_minLogCount);
    return Verdict::summarise;
  }
  return count >= g_minLogCount ? Verdict::suppress : Verdict::emit;
}

/// Until no other thread is in a call of that registration.
void awaitCalls(std::size_t registration) noexcept {
  const auto& running = g_runningCalls[registration % 2];
  for (int calls = running; calls > callsOnThisThread[registration % 2]; calls = running) running.wait(calls);
}

}  // namespace

void setLog(BRV_LogCallback callback, void* context, std::int32_t maximumCount, std::int32_t minimumCount) noexcept {
  auto* const table = context ? new (std::nothrow) LogTable : nullptr;
  std::unique_lock lock(g_logLock);
  if (callsOnThisThread == std::array<int, 2>{}) {
    // The call in which the registration before this one was replaced may still be running.
    const std::size_t beforeFormer = g_registration + 1;
    lock.unlock();
    awaitCalls(beforeFormer);
    lock.lock();
  }
  delete std::exchange(g_pLogTable, table);
  if (table) {
    _log = callback;
    pLogContext = context;
    g_maxLogCount = maximumCount;
    g_minLogCount = minimumCount;
    g_netLogCount = maximumCount - minimumCount;
  } else {
    _log = nullptr;
    pLogContext = nullptr;
    g_maxLogCount = g_minLogCount = g_netLogCount = 0;
  }
  const std::size_t former = g_registration++;
  lock.unlock();
  awaitCalls(former);
}

void _aux_log(std::int32_t level, std::int32_t line, const char* file, const char* format, ...) {
  BRV_LogCallback callback;
  void* context;
  std::size_t registration;
  Key key;
  {
    std::lock_guard lock(g_logLock);
    if (!g_pLogTable || !_log) return;
    auto* const entry = countOf(file, line);
    const Verdict verdict = entry ? decide(entry->second) : Verdict::suppress;
    if (verdict == Verdict::suppress) return;
    const std::string& text = entry->first;
    std::memcpy(key.data(), text.c_str(), text.size() + 1);
    if (verdict == Verdict::summarise) {
      std::snprintf(key.data() + text.size(), key.size() - text.size(), " x %d", g_netLogCount);
    }
    callback = _log;
    context = pLogContext;
    registration = g_registration % 2;
    ++g_runningCalls[registration];
  }

  // What is suppressed is not formatted: nobody can tell, and it is most of what a burst costs.
  Message message;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(message.data(), message.size(), format, arguments);
  va_end(arguments);
  if (length < 0) message[0] = '\0';
  if (length >= static_cast<int>(message.size())) endAtCharacter(message);

  ++callsOnThisThread[registration];
  callback(context, level, "%s    %s", key.data(), message.data());
  --callsOnThisThread[registration];
  --g_runningCalls[registration];
  g_runningCalls[registration].notify_all();
}

}  // namespace AV
