#pragma once

// The texts that PipeWire knows of an object, by their keys.

#include <spa/utils/dict.h>

#include <map>
#include <string>
#include <string_view>

struct pw_properties;

namespace hardware::pipewire {

using Properties = std::map<std::string, std::string, std::less<>>;

/// Adds what `dict` holds, and replaces what it holds otherwise. What it does not mention stays; null mentions nothing.
/// Texts too long to be a name or a place are left out: any program may write them.
void merge(const spa_dict* dict, Properties& properties);

/// The value of a key; empty when it is not there.
std::string_view valueOf(const Properties& properties, std::string_view key);

/// A number that an object has on the server; the invalid one when there is none, or it is no number.
std::uint32_t objectID(const Properties& properties, std::string_view key);

/// Owned by whoever it is given to; the library's functions take it.
pw_properties* makeProperties(const Properties& from);

}  // namespace hardware::pipewire
