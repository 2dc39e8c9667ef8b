// replaced.h - replaces characters that have a special meaning in an output language, such as HTML.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace trelmctl {

using Replacement = std::pair<char, std::string_view>;

// HTML and SVG.
inline constexpr std::array<Replacement, 4> kMarkupEscapes{
    {{'&', "&amp;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'"', "&quot;"}}};

std::string replaced(std::string_view text, std::span<const Replacement> replacements);

}  // namespace trelmctl
