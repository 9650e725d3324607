// A small bitmap font for the preview window's overlay, so that text needs no font library:
// 5 x 7 pixel glyphs for printable ASCII, with two rows below for the descenders of g, j, p,
// q, y and the comma, drawn in cells 6 pixels wide and 11 high.
#pragma once

#include <cstdint>
#include <string>

constexpr int kGlyphWidth = 5, kGlyphHeight = 9;
constexpr int kGlyphAdvance = 6; // the glyph and one column of space
constexpr int kLineHeight = 11;  // the glyph and two rows of space

// The glyph's nine rows, bit 4 the leftmost column; characters outside printable ASCII show
// as '?'.
const uint8_t* GlyphRows(char c);

// Width in pixels of text drawn with `scale` pixels per font pixel, without the trailing space.
int TextWidth(const std::string& text, int scale);
