// What a preset file in words may hold: each entry's name, what it means, and which field of the record it is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Values/Names.h"
#include "Values/Scales.h"

namespace desk {

struct WordEntry {
    enum class Kind {
        text,
        name,         // one of `names`
        step,         // a step of `scale`, where the mode carries one
        iso,          // a number of the ISO scale, or "auto"
        integer,      //
        integers,     // an array of `count`
        hexadecimal,  // "0x144"
        color_styles, // an object with a row for each style
    };
    enum class Need { always, with_the_mode, never };
    using Carries = bool (*)(int32_t mode);

    std::string group; // the object that it stands in; empty at the top
    std::string name;
    size_t offset; // in the record
    Kind kind;
    Need need;
    std::string meaning;

    const Names* names = nullptr;
    const Scale* scale = nullptr;
    Carries carries = nullptr; // of a step: whether a mode leaves it to the photographer
    int32_t left_out = 0;      // of a step: what a list has where the mode does not
    size_t count = 1;
};

// In the order in which a file has them. Entries of one group stand together.
const std::vector<WordEntry>& word_entries();

// The values of a colour style, each an array over all styles in the record.
struct StyleValue {
    std::string name;
    size_t offset; // of the value of style 0
};
const std::vector<StyleValue>& style_values();
inline constexpr auto styles_entry = "styles";
inline constexpr auto style_color = "color"; // of all styles but style 0
// Where the record has the colour of a style from 1 on.
size_t offset_of_color(int32_t style);

// A value that has no word: {"code": 9999}.
inline constexpr auto code_entry = "code";
inline constexpr auto automatic_iso = "auto";
inline constexpr auto adjustments_entry = "white_balance_adjustments";

} // namespace desk
