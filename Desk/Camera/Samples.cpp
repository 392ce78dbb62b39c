#include "Samples.h"

#include <cstring>
#include <iterator>
#include <string>

#include "SamplePictures/SamplePictures.h"

namespace desk::camera {

namespace {

enum { made_by_the_camera = SM_MADE_MAKER_KORVEL | SM_MADE_FAMILY_KT | SM_MADE_KIND_C4 };
enum { standard = 0, no_compensation = 15 };

// The camera's codes. Aperture and shutter time count sixteenths of a step: 48 is f/2.8, 112 is 1/125 s, and 65536 - 64
// is 16 s. 0 where the mode leaves them to the camera.
struct Sample {
    const char* title;
    int mode;
    int aperture;
    int shutter;
    int iso;          // full steps, 0 automatic, 1 ISO 100
    int compensation; // third steps, 15 none
    int white_balance;
    int k_value;
    int color_style;
    sm_color color; // of that style
    int saturation;
    int contrast;
    int smart_filter;
};

// clang-format off
constexpr Sample samples[] = {
    // title                 mode  Av    Tv  ISO  EV  WB     K  style  colour          saturation, contrast, filter
    {"Everyday",               0,   0,     0,  0, 15,  0,    0,  0, {100, 100, 100},   0,  0, 0},
    {"Golden hour",            2,  48,     0,  1, 14, 10, 5800,  1, {140, 110,  70},   2,  0, 0},
    {"Night street",           4,  32,    80,  5, 15, 10, 3400, 10, { 60,  90, 160},   1,  2, 0},
    {"Café, rainy day",        1,   0,     0,  3, 16,  3,    0,  5, { 90, 100, 120},  -1, -1, 0},
    {"Mountain lake",          2,  96,     0,  1, 15,  2,    0,  3, { 80, 120, 140},   2,  1, 0},
    {"Football",               3,   0,   160,  4, 15,  0,    0,  2, {100, 100, 100},   1,  1, 0},
    {"Waterfall",              3,   0,    16,  1, 13,  2,    0,  4, { 70, 110, 130},   0,  0, 0},
    {"Studio portrait",        4,  80,   112,  1, 15,  8,    0,  6, {130, 110, 100},  -1, -1, 0},
    {"Star trails",            5,  48, 65472,  5, 15, 10, 3900, 11, { 40,  60, 200},   0,  2, 0},
    {"Black and white",        1,   0,     0,  3, 15,  0,    0,  7, {100, 100, 100}, -10,  3, 0},
    {"Autumn leaves",          2,  64,     0,  2, 17,  4,    0, 12, {200, 120,   0},   3,  1, 0},
    {"Neon, pushed",           4,  32,    96,  6, 12,  7,    0, 13, {200,   0, 180},   3,  3, 0},
};
// clang-format on

static_assert(std::size(samples) == sample_count);

// The presets that CUSTOM1 and CUSTOM2 use.
constexpr int linked_numbers[] = {2, 5};

// The third-step code of a full-step one: ISO 100 has code 1 in both.
constexpr int iso_in_thirds(int iso) {
    return iso == 0 ? 0 : 3 * (iso - 1) + 1;
}

tag_custom_info record_of(const Sample& sample) {
    tag_custom_info preset{};
    std::strncpy(preset.title, sample.title, SM_TITLE_SIZE - 1);
    preset.mode = sample.mode;
    preset.av_index = sample.aperture;
    preset.tv_index = sample.shutter;
    preset.iso = sample.iso;
    preset.iso_1_3 = iso_in_thirds(sample.iso);
    preset.ev_step = sample.compensation;
    preset.type = sample.white_balance;
    preset.k_value = sample.k_value;
    preset.made_id = made_by_the_camera;
    preset.smart_filter = sample.smart_filter;

    sm_cs_info& styles = preset.cs_info;
    styles.color_style = sample.color_style;
    std::ranges::fill(styles.cs_color, sm_color{100, 100, 100});
    if (sample.color_style != standard) {
        styles.cs_color[sample.color_style - 1] = sample.color;
    }
    styles.cs_saturation[sample.color_style] = sample.saturation;
    styles.cs_contrast[sample.color_style] = sample.contrast;
    return preset;
}

void require(const PresetStore& store, int result) {
    if (result != SM_RETURN_TRUE) {
        throw Failure(exit_machine, "cannot store the sample presets: " + store.last_error());
    }
}

} // namespace

void add_samples(PresetStore& store) {
    for (int number = 0; const Sample& sample : samples) {
        tag_custom_info preset = record_of(sample);
        const auto picture = sample_picture(number++);
        require(store, store.save(preset, picture.data(), static_cast<int>(picture.size())));
    }
    for (int custom_mode = 0; const int number : linked_numbers) {
        require(store, store.link(custom_mode++, number));
    }
}

} // namespace desk::camera
