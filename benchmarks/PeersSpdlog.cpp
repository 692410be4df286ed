// spdlog: duplicates dropped by its filter, and lines that reach a sink which does nothing with them.

#include <spdlog/sinks/dup_filter_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <chrono>
#include <memory>

#include "Work.h"

namespace {

bench::Run makeSuppressed() {
  const auto filter = std::make_shared<spdlog::sinks::dup_filter_sink_mt>(std::chrono::hours(1));
  filter->add_sink(std::make_shared<spdlog::sinks::null_sink_mt>());
  const auto logger = std::make_shared<spdlog::logger>("capture", filter);
  return bench::repeat([logger] { logger->info("Dropped frame {} of {}", 1, "HD Webcam Video"); });
}

bench::Run makeEmitted() {
  const auto logger = std::make_shared<spdlog::logger>("capture", std::make_shared<spdlog::sinks::null_sink_mt>());
  return bench::repeat(
      [logger, frame = 0]() mutable { logger->info("Dropped frame {} of {}", ++frame, "HD Webcam Video"); });
}

const bench::Definition suppressed{{"log suppressed/spdlog dup_filter", 1000, 1, makeSuppressed}};
const bench::Definition emitted{{"log emitted/spdlog null sink", 1000, 1, makeEmitted}};

}  // namespace
