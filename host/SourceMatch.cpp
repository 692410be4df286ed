#include "SourceMatch.h"

#include <charconv>
#include <system_error>

#include "ASCIICase.h"

namespace brvhost {

namespace {

template <typename Predicate>
std::vector<std::size_t> indexesWhere(const std::vector<std::string>& identifiers, Predicate&& matches) {
  std::vector<std::size_t> found;
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    if (matches(std::string_view(identifiers[i]))) found.push_back(i);
  }
  return found;
}

}  // namespace

std::vector<std::size_t> matchSource(const std::vector<std::string>& identifiers, std::string_view wanted) {
  if (wanted.empty()) return {};
  auto found = indexesWhere(identifiers, [&](std::string_view name) { return name == wanted; });
  if (!found.empty()) return found;

  std::size_t index = 0;
  const auto [end, error] = std::from_chars(wanted.data(), wanted.data() + wanted.size(), index);
  if (error == std::errc() && end == wanted.data() + wanted.size() && index < identifiers.size()) return {index};

  found = indexesWhere(identifiers, [&](std::string_view name) { return equalsAnyCase(name, wanted); });
  if (!found.empty()) return found;
  return indexesWhere(identifiers, [&](std::string_view name) { return beginsWithAnyCase(name, wanted); });
}

}  // namespace brvhost
