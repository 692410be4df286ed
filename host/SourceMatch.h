#pragma once

// How people name a source on the command line.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace brvhost {

/// The indexes of the identifiers that `wanted` can mean; one when it is clear. In this order, the first that finds
/// any: the identifier itself; the index, in decimal; the identifier but for the case of ASCII letters; a beginning of
/// it, likewise.
std::vector<std::size_t> matchSource(const std::vector<std::string>& identifiers, std::string_view wanted);

}  // namespace brvhost
