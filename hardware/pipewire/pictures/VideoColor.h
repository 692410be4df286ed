#pragma once

namespace hardware::pipewire {

/// What the numbers of a picture in luma and chroma stand for.
struct VideoColor {
  enum class Matrix { unknown, ITU_R_601_4, ITU_R_709_2, ITU_R_2020 };

  Matrix matrix = Matrix::unknown;
  bool isFullRange = false;  ///< 0 to 255, rather than 16 to 235 with chroma from 16 to 240

  friend bool operator==(const VideoColor&, const VideoColor&) = default;
};

}  // namespace hardware::pipewire
