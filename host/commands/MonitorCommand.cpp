#include <chrono>
#include <filesystem>

#include "commands/Commands.h"
#include "common/Failure.h"
#include "common/Interrupt.h"
#include "monitor/WebServer.h"

namespace brvhost {

namespace {

constexpr double PollSeconds = 0.02;

}  // namespace

void monitorSources(const brv::Library& library, Journal& journal, const Options& options, std::ostream& out,
                    LogCondenser& log) {
  if (!std::filesystem::is_directory(options.folder)) throw Failure(options.folder + " is no folder");
  Broadcast broadcast(journal);
  WorkQueue queue;
  Wall wall(library, journal, broadcast, options.folder, options.framesPerSecond);
  const WebServer server(wall, broadcast, queue, options.address, options.port);
  for (const std::string& url : server.urls()) out << url << "\n";
  out << std::flush;

  const auto end = std::chrono::steady_clock::now() + brv::Seconds(options.seconds.value_or(0));
  while (!Interrupt::requested() && (!options.seconds || std::chrono::steady_clock::now() < end)) {
    wall.turn(library.poll(brv::Seconds(PollSeconds)));
    queue.perform();
    log.look(LogCondenser::Clock::now());
  }
}

}  // namespace brvhost
