#include "server/Properties.h"

#include <pipewire/properties.h>
#include <pipewire/type.h>
#include <spa/utils/defs.h>

#include <charconv>
#include <cstring>

namespace hardware::pipewire {

constexpr std::size_t LongestText = 1024;

void merge(const spa_dict* dict, Properties& properties) {
  if (!dict) return;
  for (std::uint32_t i = 0; i < dict->n_items; ++i) {
    const spa_dict_item& item = dict->items[i];
    if (item.key && item.value && std::strlen(item.value) <= LongestText) properties[item.key] = item.value;
  }
}

std::string_view valueOf(const Properties& properties, std::string_view key) {
  const auto found = properties.find(key);
  return found == properties.end() ? std::string_view() : found->second;
}

std::uint32_t objectID(const Properties& properties, std::string_view key) {
  const std::string_view text = valueOf(properties, key);
  std::uint32_t id = SPA_ID_INVALID;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
  return error == std::errc() && end == text.data() + text.size() ? id : SPA_ID_INVALID;
}

pw_properties* makeProperties(const Properties& from) {
  pw_properties* made = pw_properties_new(nullptr, nullptr);
  for (const auto& [key, value] : from) pw_properties_set(made, key.c_str(), value.c_str());
  return made;
}

}  // namespace hardware::pipewire
