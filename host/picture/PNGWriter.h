#pragma once

// PNG files of RGB pictures.

#include <cstdint>
#include <string>
#include <vector>

#include "picture/RGBImage.h"

namespace brvhost {

/// The bytes of a PNG file with `image`. Throws Failure, for one with no pixels too.
std::vector<std::uint8_t> encodePNG(const RGBImage& image);

/// Writes the file; leaves no new one behind when there is no room for it. Throws Failure.
void writePNG(const std::string& path, const RGBImage& image);

}  // namespace brvhost
