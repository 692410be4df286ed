#pragma once

// What the host tells of sources: as JSON, whose keys `brvhost list --help` and `show --help` describe, and as text
// made from it. Main thread.

#include <brv.hpp>
#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>

namespace brvhost {

using Json = nlohmann::ordered_json;

/// A source without starting it, and how it counts time where that is known.
Json factsOf(const brv::Source& source);
/// Adds what the first samples of a source tell: starts it until they have come, or for `timeoutSeconds`.
void addSamples(Json& facts, const brv::Library& library, const brv::Source& source, double timeoutSeconds);
/// Adds the module's error where there is a new one.
void addError(Json& facts, const brv::Source& source);
/// Adds its formats with all their rates. Selects one after the other, then again what was selected before.
void addFormats(Json& facts, const brv::Source& source);
/// The devices that are no sources, with the reasons.
Json unofferedOf(const brv::Library& library);

/// "HD Webcam Video  (video+audio)".
std::string titleOf(const Json& source);
/// That, and a line for each other fact.
std::string textOf(const Json& source);

/// Writes JSON, in one line or indented. Names that are no UTF-8 are mended.
void writeJSON(std::ostream& out, const Json& json, int indent = 2);

}  // namespace brvhost
