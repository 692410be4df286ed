#include "Choices.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace brvgst {

namespace {

bool begins(const std::string& text, const std::string& beginning) {
  return g_ascii_strncasecmp(text.c_str(), beginning.c_str(), beginning.size()) == 0;
}

bool hasAll(const Description& source, const Order& order) {
  return (!order.inboxes[Video] || source.has[Video]) && (!order.inboxes[Audio] || source.has[Audio]);
}

std::optional<int> indexOf(const std::vector<brv::Option>& options, auto&& fits) {
  const auto found = std::ranges::find_if(options, fits);
  return found == options.end() ? std::nullopt : std::optional(found->index);
}

[[noreturn]] void refuse(const std::vector<brv::Option>& options, const std::string& wanted) {
  std::string text = "there is no choice \"" + wanted + "\", but";
  for (const auto& option : options) text += "\n  " + std::to_string(option.index) + "  " + option.title;
  throw brv::Error(text);
}

std::optional<double> numberIn(const std::string& text) {
  double number = 0, divisor = 1;
  if (std::sscanf(text.c_str(), "%lf/%lf", &number, &divisor) < 1 || divisor == 0) return std::nullopt;
  return number / divisor;
}

}  // namespace

const Description& chosenSource(const std::vector<Description>& sources, const Order& order) {
  const std::string& wanted = order.source;
  std::vector<const Description*> found;
  const auto collect = [&](auto&& fits) {
    for (const auto& source : sources) {
      if (fits(source)) found.push_back(&source);
    }
    return !found.empty();
  };
  if (wanted.empty()) {
    if (collect([&](const Description& source) { return hasAll(source, order); })) return *found.front();
    throw Missing("there is no source with what is asked for");
  }
  if (!collect([&](const Description& source) { return source.name == wanted; }) &&
      !collect([&](const Description& source) {
        return std::ranges::find(source.deviceId, wanted) != source.deviceId.end();
      })) {
    collect([&](const Description& source) { return begins(source.name, wanted); });
  }
  if (found.empty()) {
    std::string text = "\"" + wanted + "\" is not plugged in; there are:";
    for (const auto& source : sources) text += "\n  " + source.name;
    throw Missing(text);
  }
  if (found.size() > 1) {
    std::string text = "\"" + wanted + "\" fits several sources:";
    for (const auto* source : found) text += "\n  " + source->name;
    throw brv::Error(text);
  }
  if (order.inboxes[Video] && !found[0]->has[Video]) throw Missing(found[0]->name + " has no pictures");
  if (order.inboxes[Audio] && !found[0]->has[Audio]) throw Missing(found[0]->name + " has no sound");
  return *found[0];
}

int chosenOption(const std::vector<brv::Option>& options, const std::string& wanted) {
  if (const auto index = indexOf(options, [&](const auto& option) { return option.title == wanted; })) return *index;
  const auto isIndex = [&](const auto& option) { return std::to_string(option.index) == wanted; };
  if (const auto index = indexOf(options, isIndex)) return *index;
  if (const auto index = indexOf(options, [&](const auto& option) { return begins(option.title, wanted); })) {
    return *index;
  }
  refuse(options, wanted);
}

int chosenRate(const std::vector<brv::Option>& options, const std::string& wanted) {
  if (const auto index = indexOf(options, [&](const auto& option) { return option.title == wanted; })) return *index;
  const auto rate = numberIn(wanted);
  const auto isRate = [&](const auto& option) {
    const auto offered = numberIn(option.title);
    return rate && offered && std::abs(*rate - *offered) < 0.006;  // titles have two decimals
  };
  if (const auto index = indexOf(options, isRate)) return *index;
  refuse(options, wanted);
}

std::pair<int, int> sizeIn(const std::string& title) {
  std::size_t begin = title.rfind(", ");
  begin = begin == title.npos ? 0 : begin + 2;
  int width = 0, height = 0;
  if (std::sscanf(title.c_str() + begin, "%d x %d", &width, &height) != 2) return {0, 0};
  return {width, height};
}

}  // namespace brvgst
