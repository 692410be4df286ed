// Calls of the log that the rate limit suppresses, and calls that reach a host which does nothing with them.

#include <limits>

#include "AVLog.h"
#include "Work.h"

namespace {

void ignoreLine(void*, int, const char*, ...) {}

bench::Run makeLogCalls(std::int32_t passed) {
  static int context;
  AV::setLog(ignoreLine, &context, std::numeric_limits<std::int32_t>::max(), passed);
  return bench::repeat([frame = 0]() mutable { AV_LOG(4, "Dropped frame %d of %s\n", ++frame, "HD Webcam Video"); });
}

const bench::Definition suppressed{{"log suppressed/ours", 1000, 1, [] { return makeLogCalls(0); }}};
const bench::Definition emitted{
    {"log emitted/ours", 1000, 1, [] { return makeLogCalls(std::numeric_limits<std::int32_t>::max() - 1); }}};

}  // namespace
