#pragma once

// A frame as a picture to show to people. Any thread.

#include <brv.hpp>

#include <cstdint>
#include <vector>

namespace brvhost {

/// A JPEG with square pixels, made smaller by a whole factor where it is wider than `widest` pixels. Throws Failure.
std::vector<std::uint8_t> jpegOf(const brv::Frame& frame, std::size_t widest);

}  // namespace brvhost
