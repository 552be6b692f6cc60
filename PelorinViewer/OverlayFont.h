#pragma once

#include <array>
#include <cstdint>

// The letters of the figures over the picture, so that the viewer needs no font library and no font file.
namespace pelorin::OverlayFont {

inline constexpr int glyphWidth = 5;
inline constexpr int glyphHeight = 7;

// Rows from the top, the leftmost dot in bit 4. Capitals stand for small letters; what there is no glyph for
// is blank.
std::array<std::uint8_t, glyphHeight> glyphOf(char character);

} // namespace pelorin::OverlayFont
