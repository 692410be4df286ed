#include <nlohmann/json.hpp>

#include "capture/SourceSettings.h"
#include "capture/Sources.h"
#include "commands/Commands.h"
#include "commands/Facts.h"
#include "common/Failure.h"

namespace brvhost {

namespace {

constexpr double FirstSampleSeconds = 2;

std::string selectionLine(const Json& setting) {
  std::string selected = "not known";
  for (const Json& choice : setting["choices"]) {
    if (choice["index"] == setting["selected"])
      selected = choice["index"].dump() + "  " + choice["title"].get<std::string>();
  }
  return formatted("  %-14s  %s\n", setting["name"].get<std::string>().c_str(), selected.c_str());
}

}  // namespace

void showSource(const brv::Library& library, const Options& options, std::ostream& out) {
  const brv::Source source = findSource(library, options.source);
  Json facts = factsOf(source);
  // First of all a start: it is when the module chooses a format, and with it the frame rates.
  addSamples(facts, library, source, FirstSampleSeconds);
  facts["settings"] = settingsOf(source);
  addError(facts, source);
  if (options.json) return writeJSON(out, facts);

  out << textOf(facts);
  for (const Json& setting : facts["settings"]) {
    out << "  " << setting["name"].get<std::string>() << "\n";
    for (const Json& choice : setting["choices"]) {
      const char mark = choice["index"] == setting["selected"] ? '*' : ' ';
      out << "    " << mark << " " << choice["index"] << "  " << choice["title"].get<std::string>() << "\n";
    }
  }
}

int setSource(const brv::Library& library, const Options& options, std::ostream& out) {
  const brv::Source source = findSource(library, options.source);
  const auto [tried, answer] = applySettings(library, source, options.settings);
  const Json settings = settingsOf(source);
  if (options.json) {
    Json names = Json::array();
    for (const auto& [parameter, index] : tried) names.push_back({{"name", parameter}, {"index", index}});
    writeJSON(out, {{"id", source.id()},
                    {"tried", names},
                    {"done", bool(answer)},
                    {"code", answer.code},
                    {"message", answer.message},
                    {"settings", settings}});
  } else {
    out << source.id() << ": " << settingsText(tried) << "\n"
        << formatted("  answer          %d (%s)\n", answer.code, answer ? "done" : "failed");
    if (!answer) {
      out << "  message         " << (answer.message.empty() ? "the module has none" : answer.message) << "\n";
    }
    for (const Json& setting : settings) out << selectionLine(setting);
  }
  return answer ? ExitDone : ExitFailed;
}

}  // namespace brvhost
