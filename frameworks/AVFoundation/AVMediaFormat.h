#pragma once

// Names of the media.

#include <string_view>

using AVMediaType = std::string_view;

inline constexpr AVMediaType AVMediaTypeVideo = "vide";
inline constexpr AVMediaType AVMediaTypeAudio = "soun";
inline constexpr AVMediaType AVMediaTypeMuxed = "muxx";
