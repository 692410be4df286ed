#include <nlohmann/json.hpp>

#include "commands/Commands.h"
#include "commands/Facts.h"
#include "common/Failure.h"
#include "common/Interrupt.h"

namespace brvhost {

namespace {

constexpr double ProbeTimeoutSeconds = 2;

}  // namespace

void listSources(const brv::Library& library, const Options& options, std::ostream& out) {
  const std::vector<brv::Source> sources = library.sources();
  Json list{{"group", library.name()},
            {"provider", library.property("provider").value_or("")},
            {"sources", Json::array()},
            {"unoffered", unofferedOf(library)}};
  if (!options.json) {
    out << library.name() << ": " << sources.size() << (sources.size() == 1 ? " source" : " sources") << " from "
        << list["provider"].get<std::string>() << "\n";
  }
  for (const brv::Source& source : sources) {
    Json facts = factsOf(source);
    if (options.probe && source.hasVideo()) addSamples(facts, library, source, ProbeTimeoutSeconds);
    if (options.formats && source.hasVideo()) addFormats(facts, source);
    addError(facts, source);
    if (Interrupt::requested()) throw Failure("interrupted");
    if (!options.json) out << list["sources"].size() << "  " << textOf(facts) << std::flush;
    list["sources"].push_back(std::move(facts));
  }
  if (options.json) return writeJSON(out, list);
  for (const Json& device : list["unoffered"]) {
    out << "-  " << device["name"].get<std::string>() << "  (" << device["reason"].get<std::string>() << ")\n";
  }
}

}  // namespace brvhost
