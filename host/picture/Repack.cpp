#include "picture/Repack.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace brvhost {

namespace {

#if defined(__SSE2__)

/// Takes 16 pixels at a time apart; returns how many it did.
std::size_t repackRowInBlocks(const std::uint8_t* pixels, std::size_t width, std::uint8_t* y, std::uint8_t* cb,
                              std::uint8_t* cr) {
  const __m128i lowBytes = _mm_set1_epi16(0x00FF);
  std::size_t x = 0;
  for (; x + 16 <= width; x += 16) {
    const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels + 2 * x));
    const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels + 2 * x + 16));
    const __m128i luma = _mm_packus_epi16(_mm_and_si128(first, lowBytes), _mm_and_si128(second, lowBytes));
    const __m128i chroma = _mm_packus_epi16(_mm_srli_epi16(first, 8), _mm_srli_epi16(second, 8));
    const __m128i blue = _mm_and_si128(chroma, lowBytes);
    const __m128i red = _mm_srli_epi16(chroma, 8);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(y + x), luma);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(cb + x / 2), _mm_packus_epi16(blue, blue));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(cr + x / 2), _mm_packus_epi16(red, red));
  }
  return x;
}

#else

std::size_t repackRowInBlocks(const std::uint8_t*, std::size_t, std::uint8_t*, std::uint8_t*, std::uint8_t*) {
  return 0;
}

#endif

}  // namespace

void repackPlanar(const PictureView& picture, std::uint8_t* planes) {
  const std::size_t width = picture.width;
  const std::size_t pairs = chromaWidth(width);
  std::uint8_t* y = planes;
  std::uint8_t* cb = y + width * picture.height;
  std::uint8_t* cr = cb + pairs * picture.height;
  const std::uint8_t* row = picture.pixels;
  for (std::size_t line = 0; line < picture.height; ++line) {
    for (std::size_t x = repackRowInBlocks(row, width, y, cb, cr); x < width; x += 2) {
      y[x] = row[2 * x];
      if (x + 1 < width) y[x + 1] = row[2 * x + 2];
      cb[x / 2] = row[2 * x + 1];
      cr[x / 2] = row[2 * x + 3];
    }
    row += picture.rowBytes;
    y += width;
    cb += pairs;
    cr += pairs;
  }
}

}  // namespace brvhost
