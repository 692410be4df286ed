#pragma once

// RGB pictures as PNG and JPEG files.

#include <cstdint>
#include <string>
#include <vector>

#include "picture/RGBImage.h"

namespace brvhost {

/// What the name of a file asks for: JPEG for .jpg and .jpeg, PNG for .png and for "-". Throws UsageError for any
/// other.
enum class ImageFormat { png, jpeg };
ImageFormat imageFormatOf(const std::string& path);

/// The bytes of a file with `image`. Throws Failure, for one with no pixels too.
std::vector<std::uint8_t> encoded(const RGBImage& image, ImageFormat format);

}  // namespace brvhost
