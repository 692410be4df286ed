#include "common/Choice.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <functional>
#include <system_error>

#include "common/Failure.h"

namespace brvhost {

namespace {

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

bool isPosition(const std::string& wanted, std::size_t position) {
  std::size_t meant = 0;
  const auto [end, error] = std::from_chars(wanted.data(), wanted.data() + wanted.size(), meant);
  return error == std::errc() && end == wanted.data() + wanted.size() && meant == position;
}

std::vector<std::size_t> matches(const std::vector<Choice>& choices, const std::string& wanted) {
  const std::function<bool(std::size_t)> rules[] = {
      [&](std::size_t at) {
        const auto& [name, aliases] = choices[at];
        return name == wanted || std::find(aliases.begin(), aliases.end(), wanted) != aliases.end();
      },
      [&](std::size_t at) { return isPosition(wanted, at); },
      [&](std::size_t at) { return ::strcasecmp(choices[at].name.c_str(), wanted.c_str()) == 0; },
      [&](std::size_t at) { return hasPart(choices[at].name, wanted); },
  };
  std::vector<std::size_t> found;
  for (const auto& isMeant : rules) {
    for (std::size_t at = 0; at < choices.size() && !wanted.empty(); ++at) {
      if (isMeant(at)) found.push_back(at);
    }
    if (!found.empty()) break;
  }
  return found;
}

std::string line(const std::vector<Choice>& choices, std::size_t at) {
  return formatted("\n  %zu  ", at) + choices[at].name;
}

}  // namespace

bool hasPart(const std::string& name, const std::string& part) {
  const char* found = ::strcasestr(name.c_str(), part.c_str());
  for (; found != nullptr && *found != '\0'; found = ::strcasestr(found + 1, part.c_str())) {
    const bool isCutBefore = isDigit(part.front()) && found != name.c_str() && isDigit(found[-1]);
    const bool isCutAfter = isDigit(part.back()) && isDigit(found[part.size()]);
    if (!isCutBefore && !isCutAfter) return true;
  }
  return false;
}

std::size_t choose(const std::string& kind, const std::vector<Choice>& choices, const std::string& wanted) {
  const std::vector<std::size_t> found = matches(choices, wanted);
  if (found.empty()) refuse("\"" + wanted + "\" is no " + kind, choices);
  const auto isTheFirst = [&](std::size_t at) { return choices[at].name == choices[found.front()].name; };
  if (std::all_of(found.begin(), found.end(), isTheFirst)) return found.front();
  std::string message = "\"" + wanted + "\" fits more than one " + kind + ":";
  for (const std::size_t at : found) message += line(choices, at);
  throw UsageError(message);
}

void refuse(const std::string& message, const std::vector<Choice>& choices) {
  std::string text = message + (choices.empty() ? "; there are none" : "; there are:");
  for (std::size_t at = 0; at < choices.size(); ++at) text += line(choices, at);
  throw UsageError(text);
}

}  // namespace brvhost
