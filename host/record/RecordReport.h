#pragma once

// A recording in words: before it, while it runs, at its end, and what is wrong with it.

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>

#include "capture/SignalWatch.h"
#include "capture/Sources.h"
#include "record/MissingLimit.h"
#include "record/TakeAccount.h"
#include "record/TakeOptions.h"

namespace brvhost {

/// Why samples of either medium were dropped, of which the module's counts were the ones before the recording and the
/// others after.
struct TakeDrops {
  Drops pictures, sound;

  static TakeDrops of(const brv::Source& source) { return {dropsOf(source, "video"), dropsOf(source, "audio")}; }
  TakeDrops since(const TakeDrops& earlier) const;
  TakeDrops& operator+=(const TakeDrops& more);
};

/// What the disk will hold: "about 62 MB/s: room for 2 h 10 min"; empty where the size of the pictures is not known.
std::string outlookText(const brv::Source& source, const TakeOptions& options);

/// "2 lost by the device, 1 without a valid time"; empty without any.
std::string reasonsText(const Drops& drops);

/// One line: how long, how many frames, how much sound and how loud, how many bytes.
std::string progressText(double elapsedSeconds, const TakeAccount& account, const Level& level);

/// The account of a recording, finished or not, several lines.
std::string reportText(const TakeAccount& account, const TakeDrops& drops);
/// The same for programs.
nlohmann::ordered_json reportJSON(const TakeAccount& account, const TakeDrops& drops,
                                  const std::optional<std::string>& shortfall);

/// Why a finished recording is not whole; none when it is. `sourceError` is what the source says of a medium that never
/// came, empty for nothing.
std::optional<std::string> shortfallOf(const TakeAccount& account, const TakeOptions& options,
                                       const MissingLimit& limit, const std::string& sourceError);

}  // namespace brvhost
