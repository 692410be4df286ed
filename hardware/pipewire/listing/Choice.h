#pragma once

// What a format of PipeWire leaves open: one value, several, or all between two.

#include <spa/pod/iter.h>
#include <spa/pod/pod.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace hardware::pipewire {

/// The values of one of a format's properties, the preferred one first. A range has three: preferred, lowest, highest;
/// and a fourth where only every so many-th counts.
template <typename T>
struct Choice {
  std::vector<T> values;
  bool isRange = false;

  bool isEmpty() const { return values.empty(); }
  const T& preferred() const { return values.front(); }
  /// Of a range.
  const T& lowest() const { return values[1]; }
  const T& highest() const { return values[2]; }
  bool hasStep() const { return isRange && values.size() > 3; }
  const T& step() const { return values[3]; }
};

/// Empty when the format has no such property, or it is of another type.
template <typename T>
Choice<T> choiceOf(const spa_pod* format, std::uint32_t key, std::uint32_t type) {
  const spa_pod_prop* property = spa_pod_find_prop(format, nullptr, key);
  if (!property) return {};
  const spa_pod* value = &property->value;
  std::uint32_t kind = SPA_CHOICE_None;
  std::size_t count = 1;
  if (value->type == SPA_TYPE_Choice) {
    if (value->size < sizeof(spa_pod_choice_body)) return {};
    const auto& body = reinterpret_cast<const spa_pod_choice*>(value)->body;
    kind = body.type;
    if (body.child.size != sizeof(T) || body.child.type != type) return {};
    count = (value->size - sizeof body) / sizeof(T);
    value = &body.child;
  } else if (value->type != type || value->size < sizeof(T)) {
    return {};
  }

  constexpr std::size_t Most = 1000;
  std::vector<T> values(count < Most ? count : Most);
  if (!values.empty()) std::memcpy(values.data(), SPA_POD_BODY_CONST(value), values.size() * sizeof(T));
  if (kind == SPA_CHOICE_Range || kind == SPA_CHOICE_Step) {
    if (values.size() < 3) return {};
    const std::ptrdiff_t most = kind == SPA_CHOICE_Step ? 4 : 3;
    if (std::ssize(values) > most) values.erase(values.begin() + most, values.end());
    return {std::move(values), true};
  }
  if (kind == SPA_CHOICE_None && values.size() > 1) values.erase(values.begin() + 1, values.end());
  // An enumeration begins with what is preferred, and repeats it among the others.
  if (kind == SPA_CHOICE_Enum && values.size() > 1) {
    for (std::size_t i = 1; i < values.size(); ++i) {
      if (std::memcmp(&values[i], &values[0], sizeof(T)) != 0) continue;
      values.erase(values.begin() + static_cast<std::ptrdiff_t>(i));
      break;
    }
  }
  return {std::move(values), false};
}

}  // namespace hardware::pipewire
