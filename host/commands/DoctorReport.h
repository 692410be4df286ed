#pragma once

// What `doctor` found out, as one page that can be sent to somebody: nothing in it is loaded from elsewhere.

#include <string>

#include "capture/Examination.h"
#include "commands/Facts.h"

namespace brvhost {

class DoctorReport {
 public:
  /// A source: what is known of it, also as text, its settings, and what the examination brought.
  void add(const Json& facts, const std::string& text, const Json& settings, const Examination& examination);

  /// The page, with what `report` says of the machine.
  std::string page(const Json& report) const;

 private:
  std::string _sources;
};

}  // namespace brvhost
