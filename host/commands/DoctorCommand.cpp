#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "capture/Examination.h"
#include "capture/MediaServer.h"
#include "capture/SourceSettings.h"
#include "commands/Commands.h"
#include "commands/DoctorReport.h"
#include "commands/Facts.h"
#include "common/Failure.h"
#include "common/Interrupt.h"
#include "common/VideoDevices.h"
#include "record/OutputFile.h"

namespace brvhost {

namespace {

Json decibels(double value) {
  return std::isfinite(value) ? Json(value) : Json();
}

/// What is wrong with the server; empty for nothing.
std::string problemOf(const MediaServer& server) {
  if (!server.problem.empty()) return server.problem;
  if (!server.sessionManager.empty()) return "";
  return "no session manager is known to run: without one there are no devices. Start wireplumber.";
}

Json factsOf(const VideoDevice& device) {
  return {{"path", device.path},
          {"name", device.name},
          {"permitted", device.isPermitted},
          {"permissions", device.permissions},
          {"holders", device.holders}};
}

Json factsOf(const Examination::Picture& picture) {
  return {{"first_seconds", picture.firstSeconds},
          {"width", picture.width},
          {"height", picture.height},
          {"nominal_rate", picture.timing.frameRate().value()},
          {"rate", picture.rate},
          {"jitter_seconds", picture.jitter},
          {"age_seconds", picture.age},
          {"count", picture.count},
          {"missing", picture.missing},
          {"black", picture.isBlack},
          {"frozen", picture.isFrozen}};
}

Json factsOf(const Examination::Sound& sound) {
  return {{"first_seconds", sound.firstSeconds},
          {"rate", sound.rate},
          {"peak", decibels(sound.level.peak)},
          {"rms", decibels(sound.level.rms)},
          {"silent", sound.isSilent}};
}

std::string textOf(const VideoDevice& device) {
  std::string text = device.path + "  " + device.name;
  text += "  " + device.permissions;
  if (!device.isPermitted) text += "  not permitted to this user: is there a group \"video\" to join?";
  for (const std::string& holder : device.holders)
    text += (&holder == &device.holders[0] ? "  open in " : ", ") + holder;
  return text + "\n";
}

Json factsOf(const MediaServer& server) {
  Json devices = Json::array();
  for (const ServerDevice& device : server.devices) {
    devices.push_back({{"name", device.name},
                       {"description", device.description},
                       {"formats", device.formats},
                       {"users", device.users}});
  }
  return {{"name", server.name},
          {"session_manager", server.sessionManager},
          {"problem", problemOf(server)},
          {"devices", devices}};
}

/// What the server says of the devices of a source, and where the sizes are not those that the source offers.
std::string textOf(const MediaServer& server, const brv::Source& source) {
  std::string text;
  const auto line = [&](const char* name, const std::string& value) {
    text += formatted("     %-11s ", name) + value + "\n";
  };
  for (const char* medium : {"video", "audio"}) {
    const std::string id = deviceId(source, medium);
    const ServerDevice* const device = id.empty() ? nullptr : server.deviceOf(id);
    if (!device) continue;
    for (const std::string& format : device->formats) line("server has", format);
    for (const std::string& user : device->users) line("in use by", user);
    if (device->sizes.empty() || device->hasAnySize) continue;
    std::set<std::string> offered;
    for (const brv::Option& option : source.options(brv::VideoSettings)) {
      std::smatch size;
      if (std::regex_search(option.title, size, std::regex("\\d+ x \\d+"))) offered.insert(size.str());
    }
    for (const std::string& size : device->sizes) {
      if (!offered.contains(size)) line("differs", "the server has " + size + ", which the source does not offer");
    }
    for (const std::string& size : offered) {
      if (!device->sizes.contains(size)) line("differs", "the source offers " + size + ", which the server has not");
    }
  }
  return text;
}

std::string textOf(const Examination& examination) {
  std::string text;
  if (const auto& picture = examination.picture) {
    text += formatted("     picture     %d x %d, %.4g of %.4g frames/s, %lld missing, the first after %.2f s\n",
                      picture->width, picture->height, picture->rate, picture->timing.frameRate().value(),
                      static_cast<long long>(picture->missing), picture->firstSeconds);
    text += formatted("     times       uneven by %.2f ms, %.1f ms old on arrival\n", 1'000 * picture->jitter,
                      1'000 * picture->age);
  }
  if (const auto& sound = examination.sound) {
    text += "     sound       peak " + levelText(sound->level.peak) + ", mean " + levelText(sound->level.rms) +
            formatted(", %.0f of 44100 a second, the first after %.2f s\n", sound->rate, sound->firstSeconds);
  }
  return text;
}

std::string adviceText(const std::vector<std::string>& advice) {
  if (advice.empty()) return "     verdict     good\n";
  std::string text;
  for (const std::string& each : advice) text += "     advice      " + each + "\n";
  return text;
}

}  // namespace

int examineSources(const brv::Library& library, const Options& options, std::ostream& out) {
  Json report{{"group", library.name()},
              {"provider", library.property("provider").value_or("")},
              {"video_devices", Json::array()},
              {"unoffered", unofferedOf(library)},
              {"sources", Json::array()}};
  std::optional<OutputFile> file;
  if (!options.output.empty()) file.emplace(options.output);  // which fails before there is work to lose
  DoctorReport page;
  bool isGood = std::ranges::all_of(report["unoffered"], [](const Json& device) {
    return device["reason"].get<std::string>().find("plug-in of their own") != std::string::npos;  // which is meant so
  });
  std::vector<brv::Source> sources = library.sources();
  if (!options.source.empty()) sources = {findSource(library, options.source)};
  if (!options.json) out << library.name() << " from " << report["provider"].get<std::string>() << "\n";
  std::optional<MediaServer> server;
  // Of a rig's devices it knows nothing.
  if (options.rig.empty() && report["provider"] != "a rig") server = askMediaServer();
  if (server) {
    report["server"] = factsOf(*server);
    const std::string problem = problemOf(*server);
    isGood = isGood && problem.empty();
    if (!options.json) {
      if (!server->name.empty()) out << "server  " << server->name << "\n";
      out << (problem.empty() ? "session manager  " + server->sessionManager : "advice  " + problem) << "\n";
    }
  }
  for (const VideoDevice& device : videoDevices()) {
    report["video_devices"].push_back(factsOf(device));
    isGood = isGood && device.isPermitted;
    if (!options.json) out << textOf(device);
  }
  for (const Json& device : report["unoffered"]) {
    if (options.json) break;
    out << "-  " << device["name"].get<std::string>() << "  (" << device["reason"].get<std::string>() << ")\n";
  }
  for (const brv::Source& source : sources) {
    Json facts = brvhost::factsOf(source);
    const std::string known = brvhost::textOf(facts) + (server ? textOf(*server, source) : "");
    if (!options.json) out << known << std::flush;
    const Examination examination = examine(library, source);
    if (Interrupt::requested()) throw Failure("interrupted");
    const std::vector<std::string> advice = adviceFor(source, examination);
    isGood = isGood && advice.empty();
    const std::string found = textOf(examination);
    if (!options.json) out << found << adviceText(advice) << std::flush;
    if (examination.picture) facts["picture"] = factsOf(*examination.picture);
    if (examination.sound) facts["sound"] = factsOf(*examination.sound);
    facts["dropped"] = {{"video", examination.videoDrops}, {"audio", examination.audioDrops}};
    facts["advice"] = advice;
    if (!options.output.empty())
      page.add(facts, known.substr(known.find('\n') + 1) + found,
               source.isPluggedIn() ? settingsOf(source) : Json::array(), examination);
    report["sources"].push_back(std::move(facts));
  }
  report["good"] = isGood;
  if (file) {
    const std::string text = page.page(report);
    file->write(text.data(), text.size());
    file->close();
  }
  if (options.json) {
    writeJSON(out, report);
  } else {
    out << (isGood ? "All is well.\n" : "Not all is well.\n");
  }
  return isGood ? ExitDone : ExitFailed;
}

}  // namespace brvhost
