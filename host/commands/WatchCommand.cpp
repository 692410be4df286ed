#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <utility>

#include "capture/SourceWatch.h"
#include "commands/Commands.h"
#include "commands/Facts.h"
#include "common/Failure.h"
#include "common/Interrupt.h"
#include "common/LocalTime.h"

namespace brvhost {

namespace {

constexpr double PollSeconds = 0.1;

std::string deviceText(const Json& source) {
  const std::string camera = source.value("video_device_id", ""), microphone = source.value("audio_device_id", "");
  if (camera.empty() || camera == microphone) return "  " + microphone;
  return "  " + camera + (microphone.empty() ? "" : ", " + microphone);
}

/// The line of an event, without its time: " + HD Webcam Video  (video+audio)  webcam, microphone".
std::string textOfEvent(const Json& event) {
  const std::string kind = event["event"];
  if (kind == "error")
    return " ! " + event["source"]["id"].get<std::string>() + ": " + event["error"].get<std::string>();
  if (event.contains("text")) {
    return (kind == "signal" ? " ! " : "   ") + event["source"]["id"].get<std::string>() + ": " +
           event["text"].get<std::string>();
  }
  if (event.contains("source")) {
    const char* const mark = kind == "added" ? " + " : kind == "removed" ? " - " : "   ";
    return mark + titleOf(event["source"]) + deviceText(event["source"]);
  }
  if (event.contains("device")) {
    return " ! " + event["device"]["name"].get<std::string>() + ": " + event["device"]["reason"].get<std::string>();
  }
  return std::string(kind == "attached" ? " a device was plugged in" : " a device was removed") +
         (event["sources_changed"] ? "" : "; every source stays as it is");
}

/// "12:34:56" of an event's time.
std::string clockOf(const Json& event) {
  return event["time"].get<std::string>().substr(std::size("2026-01-31T") - 1, std::size("12:34:56") - 1);
}

/// What is there at one moment.
struct Present {
  explicit Present(const brv::Library& library) : sources(Json::array()), unoffered(unofferedOf(library)) {
    for (const brv::Source& source : library.sources()) {
      sources.push_back(factsOf(source));
      // What is known only while it runs makes it no other.
      for (const char* key : {"frame_rate", "frame_duration", "ticks_per_second"}) sources.back().erase(key);
    }
  }

  Json sources;
  Json unoffered;
};

/// The sources that are captured from, where that is asked for.
class Watches {
 public:
  /// Follows what is there, and tells what is new: tell(source, text).
  template <typename Tell>
  void look(const brv::Library& library, Tell&& tell) {
    const auto now = SourceWatch::Clock::now();
    std::erase_if(_watches, [](const auto& watch) { return !watch->source().isPluggedIn(); });
    for (const brv::Source& source : library.sources()) {
      const bool isWatched =
          std::ranges::any_of(_watches, [&](auto& each) { return each->source().id() == source.id(); });
      if (!isWatched) _watches.push_back(std::make_unique<SourceWatch>(source));
    }
    for (const auto& watch : _watches) {
      if (const auto news = watch->takeNews(now)) tell(watch->source(), *news);
    }
  }
  template <typename Tell>
  void summarize(Tell&& tell) const {
    for (const auto& watch : _watches) tell(watch->source(), watch->summary());
  }

 private:
  std::vector<std::unique_ptr<SourceWatch>> _watches;
};

bool contains(const Json& all, const Json& one) {
  return std::find(all.begin(), all.end(), one) != all.end();
}

}  // namespace

void watchDevices(const brv::Library& library, std::vector<brv::Change>& changes, const Options& options,
                  std::ostream& out, LogCondenser& log) {
  // Programs get every event.
  LogCondenser lines([&](int, std::string_view line) { out << line << std::endl; });
  const auto tell = [&](const char* kind, const Json& details) {
    Json event{{"time", localTime("%FT%T%z")}, {"event", kind}};
    event.update(details);
    if (options.json)
      writeJSON(out, event, -1);
    else if (event.contains("text") || event["event"] == "present")  // few, and each of them counts
      out << clockOf(event) << textOfEvent(event) << std::endl;
    else
      lines.line(0, textOfEvent(event), LogCondenser::Clock::now(), clockOf(event));
  };
  const auto tellErrors = [&] {
    for (const brv::Source& source : library.sources()) {
      Json event{{"source", factsOf(source)}};
      addError(event, source);
      if (event.contains("error")) tell("error", event);
    }
  };
  Present known(library);
  for (const Json& source : known.sources) tell("present", {{"source", source}});
  for (const Json& device : known.unoffered) tell("unoffered", {{"device", device}});
  tellErrors();

  Watches watches;
  const auto end = std::chrono::steady_clock::now() + brv::Seconds(options.seconds.value_or(0));
  while (!Interrupt::requested() && (!options.seconds || std::chrono::steady_clock::now() < end)) {
    library.poll(brv::Seconds(std::min(PollSeconds, options.seconds.value_or(PollSeconds))));
    const auto time = LogCondenser::Clock::now();
    for (LogCondenser* condenser : {&lines, &log}) condenser->look(time);
    Present present(library);
    for (const brv::Change change : std::exchange(changes, {})) {
      tell(change == brv::Change::Attached ? "attached" : "detached",
           {{"sources_changed", present.sources != known.sources}});
    }
    const auto tellNew = [&](const char* kind, const char* what, const Json& before, const Json& after) {
      for (const Json& each : after) {
        if (!contains(before, each)) tell(kind, {{what, each}});
      }
    };
    tellNew("removed", "source", present.sources, known.sources);
    tellNew("added", "source", known.sources, present.sources);
    tellNew("unoffered", "device", known.unoffered, present.unoffered);
    tellErrors();
    known = std::move(present);
    if (options.capture)
      watches.look(library, [&](const brv::Source& source, const std::string& text) {
        tell("signal", {{"source", factsOf(source)}, {"text", text}});
      });
  }
  lines.finish();
  watches.summarize([&](const brv::Source& source, const std::string& text) {
    tell("summary", {{"source", factsOf(source)}, {"text", text}});
  });
}

}  // namespace brvhost
