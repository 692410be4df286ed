#include "SourceMatch.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace brvhost {

namespace {

char lowered(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool beginsWith(std::string_view text, std::string_view beginning) {
  return text.size() >= beginning.size() && std::equal(beginning.begin(), beginning.end(), text.begin(),
                                                       [](char a, char b) { return lowered(a) == lowered(b); });
}

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

  found = indexesWhere(identifiers,
                       [&](std::string_view name) { return name.size() == wanted.size() && beginsWith(name, wanted); });
  if (!found.empty()) return found;
  return indexesWhere(identifiers, [&](std::string_view name) { return beginsWith(name, wanted); });
}

}  // namespace brvhost
