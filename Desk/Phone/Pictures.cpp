#include "Pictures.h"

#include <algorithm>
#include <chafa.h>
#include <memory>
#include <sstream>
#include <unistd.h>

#include "Common/Terminal.h"
#include "Jpeg.h"
#include "Output.h"

namespace desk::phone {
namespace {

// Of a character. The usual one is what the finest characters can make use of.
struct CellSize {
    size_t width = 8;
    size_t height = 16;
};

// What a terminal may say of its characters. A graphic is drawn in its pixels, so that these cost memory.
constexpr CellSize smallest_cell = {4, 8};
constexpr CellSize largest_cell = {32, 64};

// A graphic, and the capability of a terminal that has it.
struct Graphics {
    ChafaTermSeq begin;
    ChafaPixelMode mode;
};
constexpr Graphics graphics[] = {
    {CHAFA_TERM_SEQ_BEGIN_KITTY_IMMEDIATE_IMAGE_V1, CHAFA_PIXEL_MODE_KITTY},
    {CHAFA_TERM_SEQ_BEGIN_ITERM2_IMAGE, CHAFA_PIXEL_MODE_ITERM2},
    {CHAFA_TERM_SEQ_BEGIN_SIXELS, CHAFA_PIXEL_MODE_SIXELS},
};

template<auto release>
struct Release {
    template<typename Object>
    void operator()(Object* object) const {
        release(object);
    }
};

template<typename Object, auto release>
using Owned = std::unique_ptr<Object, Release<release>>;

using Terminal = Owned<ChafaTermInfo, chafa_term_info_unref>;
using Symbols = Owned<ChafaSymbolMap, chafa_symbol_map_unref>;
using Config = Owned<ChafaCanvasConfig, chafa_canvas_config_unref>;
using Canvas = Owned<ChafaCanvas, chafa_canvas_unref>;

Terminal this_terminal() {
    gchar** environment = g_get_environ();
    Terminal terminal(chafa_term_db_detect(chafa_term_db_get_default(), environment));
    g_strfreev(environment);
    return terminal;
}

bool has(const Terminal& terminal, ChafaTermSeq sequence) {
    return chafa_term_info_have_seq(terminal.get(), sequence) != FALSE;
}

std::optional<ChafaCanvasMode> colors_of(const Terminal& terminal) {
    if (has(terminal, CHAFA_TERM_SEQ_SET_COLOR_FGBG_DIRECT)) {
        return CHAFA_CANVAS_MODE_TRUECOLOR;
    }
    if (has(terminal, CHAFA_TERM_SEQ_SET_COLOR_FGBG_256)) {
        return CHAFA_CANVAS_MODE_INDEXED_240;
    }
    if (has(terminal, CHAFA_TERM_SEQ_SET_COLOR_FGBG_16)) {
        return CHAFA_CANVAS_MODE_INDEXED_16;
    }
    return std::nullopt;
}

// Half blocks where the terminal's encoding has them, else blanks with a background.
Symbols usable_symbols() {
    Symbols symbols(chafa_symbol_map_new());
    const bool has_blocks = g_get_charset(nullptr) != FALSE;
    chafa_symbol_map_add_by_tags(symbols.get(), CHAFA_SYMBOL_TAG_SPACE);
    if (has_blocks) {
        chafa_symbol_map_add_by_tags(symbols.get(), CHAFA_SYMBOL_TAG_VHALF);
        chafa_symbol_map_add_by_tags(symbols.get(), CHAFA_SYMBOL_TAG_HHALF);
        chafa_symbol_map_add_by_tags(symbols.get(), CHAFA_SYMBOL_TAG_QUAD);
    }
    return symbols;
}

std::optional<ChafaPixelMode> graphics_of(const Terminal& terminal) {
    const auto* const found =
        std::ranges::find_if(graphics, [&](const Graphics& one) { return has(terminal, one.begin); });
    return found == std::end(graphics) ? std::nullopt : std::optional(found->mode);
}

CellSize cell_size() {
    const std::optional<TerminalSize> size = terminal_size(STDOUT_FILENO);
    if (!size || size->pixels_across == 0 || size->pixels_down == 0) {
        return {};
    }
    return {std::clamp(size->pixels_across / size->columns, smallest_cell.width, largest_cell.width),
            std::clamp(size->pixels_down / size->rows, smallest_cell.height, largest_cell.height)};
}

// How pictures come to this terminal.
struct Style {
    ChafaPixelMode mode;
    ChafaCanvasMode colors;
    CellSize cell;
};

Style style_of(const Terminal& terminal, DrawnAs form) {
    const std::optional<ChafaPixelMode> mode = form == DrawnAs::graphics ? graphics_of(terminal) : std::nullopt;
    if (mode) {
        return {*mode, CHAFA_CANVAS_MODE_TRUECOLOR, cell_size()};
    }
    return {CHAFA_PIXEL_MODE_SYMBOLS, colors_of(terminal).value_or(CHAFA_CANVAS_MODE_INDEXED_16), cell_size()};
}

Config config_for(const Pixels& pixels, size_t columns, size_t rows, const Style& style) {
    auto width = static_cast<gint>(columns);
    auto height = static_cast<gint>(rows);
    const auto cell_width = static_cast<gint>(style.cell.width);
    const auto cell_height = static_cast<gint>(style.cell.height);
    chafa_calc_canvas_geometry(pixels.width, pixels.height, &width, &height,
                               static_cast<gfloat>(cell_width) / static_cast<gfloat>(cell_height), FALSE, FALSE);
    Config config(chafa_canvas_config_new());
    chafa_canvas_config_set_geometry(config.get(), width, height);
    chafa_canvas_config_set_cell_geometry(config.get(), cell_width, cell_height);
    chafa_canvas_config_set_canvas_mode(config.get(), style.colors);
    chafa_canvas_config_set_pixel_mode(config.get(), style.mode);
    chafa_canvas_config_set_symbol_map(config.get(), usable_symbols().get());
    return config;
}

std::vector<std::string> lines_in(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        lines.push_back(line);
    }
    return lines;
}

Drawing printed(const Canvas& canvas, const Config& config, const Terminal& terminal) {
    GString* text = chafa_canvas_print(canvas.get(), terminal.get());
    std::string result(text->str, text->len);
    g_string_free(text, TRUE);
    gint width = 0;
    chafa_canvas_config_get_geometry(config.get(), &width, nullptr);
    const bool has_lines = chafa_canvas_config_get_pixel_mode(config.get()) == CHAFA_PIXEL_MODE_SYMBOLS;
    return {has_lines ? lines_in(result) : std::vector<std::string>{std::move(result)}, static_cast<size_t>(width)};
}

} // namespace

std::optional<std::string> why_not_drawn() {
    if (!output_is_terminal()) {
        return "standard output is no terminal";
    }
    if (color_is_unwanted()) {
        return "NO_COLOR is set";
    }
    const Terminal terminal = this_terminal();
    if (!terminal_can_redraw() || (!colors_of(terminal) && !graphics_of(terminal))) {
        return "the terminal has no colours";
    }
    return std::nullopt;
}

DrawnAs best_drawing(bool only_characters) {
    return only_characters || !graphics_of(this_terminal()) ? DrawnAs::characters : DrawnAs::graphics;
}

std::optional<Drawing> drawn(std::span<const uint8_t> jpeg, size_t columns, size_t rows, DrawnAs form) {
    const Terminal terminal = this_terminal();
    const Style style = style_of(terminal, form);
    const Box box = {static_cast<unsigned>(columns * style.cell.width),
                     static_cast<unsigned>(rows * style.cell.height)};
    const std::optional<Pixels> pixels = decode_jpeg(jpeg, box);
    if (!pixels) {
        return std::nullopt;
    }
    const Config config = config_for(*pixels, columns, rows, style);
    const Canvas canvas(chafa_canvas_new(config.get()));
    chafa_canvas_draw_all_pixels(canvas.get(), CHAFA_PIXEL_RGB8, pixels->rgb.data(), pixels->width, pixels->height,
                                 static_cast<gint>(pixels->row_size));
    return printed(canvas, config, terminal);
}

} // namespace desk::phone
