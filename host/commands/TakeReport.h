#pragma once

// What became of a recording, as one page that can be sent to somebody.

#include <optional>
#include <string>

#include "commands/Facts.h"
#include "record/RecordReport.h"
#include "record/TakeDiary.h"

namespace brvhost {

/// `facts` has what the page begins with, texts by their names; `settings` are as `brvhost show --json` has them.
std::string takePage(const Json& facts, const Json& settings, const TakeNotes& notes, const TakeAccount& account,
                     const TakeDrops& drops, const std::optional<std::string>& shortfall);

}  // namespace brvhost
