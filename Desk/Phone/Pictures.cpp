#include "Pictures.h"

#include <chafa.h>
#include <memory>

#include "Jpeg.h"
#include "Output.h"

namespace desk::phone {
namespace {

constexpr float character_shape = 0.5F; // characters are about twice as high as wide
constexpr size_t pixels_a_column = 8;   // what the finest characters can make use of
constexpr size_t pixels_a_row = 16;

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

Config config_for(const Pixels& pixels, size_t columns, size_t rows, ChafaCanvasMode colors) {
    auto width = static_cast<gint>(columns);
    auto height = static_cast<gint>(rows);
    chafa_calc_canvas_geometry(pixels.width, pixels.height, &width, &height, character_shape, FALSE, FALSE);
    Config config(chafa_canvas_config_new());
    chafa_canvas_config_set_geometry(config.get(), width, height);
    chafa_canvas_config_set_canvas_mode(config.get(), colors);
    chafa_canvas_config_set_pixel_mode(config.get(), CHAFA_PIXEL_MODE_SYMBOLS);
    chafa_canvas_config_set_symbol_map(config.get(), usable_symbols().get());
    return config;
}

std::string printed(const Canvas& canvas, const Terminal& terminal) {
    GString* text = chafa_canvas_print(canvas.get(), terminal.get());
    std::string result(text->str, text->len);
    g_string_free(text, TRUE);
    return result + "\n";
}

} // namespace

std::optional<std::string> why_not_drawn() {
    if (!output_is_terminal()) {
        return "standard output is no terminal";
    }
    if (color_is_unwanted()) {
        return "NO_COLOR is set";
    }
    if (!terminal_can_redraw() || !colors_of(this_terminal())) {
        return "the terminal has no colours";
    }
    return std::nullopt;
}

std::optional<std::string> drawn(std::span<const uint8_t> jpeg, size_t columns, size_t rows) {
    const Box box = {static_cast<unsigned>(columns * pixels_a_column), static_cast<unsigned>(rows * pixels_a_row)};
    const std::optional<Pixels> pixels = decode_jpeg(jpeg, box);
    const Terminal terminal = this_terminal();
    const std::optional<ChafaCanvasMode> colors = colors_of(terminal);
    if (!pixels || !colors) {
        return std::nullopt;
    }
    const Config config = config_for(*pixels, columns, rows, *colors);
    const Canvas canvas(chafa_canvas_new(config.get()));
    chafa_canvas_draw_all_pixels(canvas.get(), CHAFA_PIXEL_RGB8, pixels->rgb.data(), pixels->width, pixels->height,
                                 pixels->width * 3);
    return printed(canvas, terminal);
}

} // namespace desk::phone
