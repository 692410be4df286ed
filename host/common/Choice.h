#pragma once

// Choosing by name on the command line: a source, a setting, or one of its choices.

#include <string>
#include <vector>

namespace brvhost {

/// Something to choose.
struct Choice {
  std::string name;
  std::vector<std::string> aliases = {};  ///< understood where they are given whole
};

/// Whether `part` stands in `name`, in any case and with its numbers whole: "1 Vid" does in "Cam 1 Video" and not in
/// "Cam 11 Video".
bool hasPart(const std::string& name, const std::string& part);

/// The position of the choice that `wanted` means. In this order, the first that finds any: its name or an alias; its
/// position, in decimal; its name in another case; a part of its name, as hasPart has it. Of several with one name the
/// first is meant. Case matters beyond ASCII. `kind` says what is chosen, "source" for one. Throws UsageError, with the
/// choices that it can mean or else all that there are, unless that is exactly one.
std::size_t choose(const std::string& kind, const std::vector<Choice>& choices, const std::string& wanted);

/// Throws UsageError: `message`, and the choices that there are.
[[noreturn]] void refuse(const std::string& message, const std::vector<Choice>& choices);

}  // namespace brvhost
