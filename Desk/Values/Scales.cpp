#include "Scales.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <fmt/format.h>
#include <iterator>

#include "Forecast/Steps.h"

namespace desk {
namespace {

constexpr auto nothing = "-"; // what the camera decides

struct ShutterTime {
    int32_t position;
    const char* text;
};

// The times that a camera has at the phone's positions 0 to 109, as they stand on a shutter dial.
constexpr ShutterTime shutter_times[] = {
    {1, "60 s"},       {2, "30 s"},       {7, "25 s"},        {12, "20 s"},     {17, "15 s"},      {19, "13 s"},
    {22, "10 s"},      {24, "8 s"},       {26, "6 s"},        {27, "5 s"},      {28, "4 s"},       {38, "3.2 s"},
    {43, "2.5 s"},     {48, "2 s"},       {52, "1.6 s"},      {55, "1.3 s"},    {58, "1 s"},       {60, "0.8 s"},
    {62, "0.6 s"},     {63, "0.5 s"},     {64, "0.4 s"},      {65, "0.3 s"},    {69, "1/4 s"},     {70, "1/5 s"},
    {71, "1/6 s"},     {72, "1/8 s"},     {73, "1/10 s"},     {74, "1/13 s"},   {75, "1/15 s"},    {76, "1/20 s"},
    {77, "1/25 s"},    {78, "1/30 s"},    {79, "1/40 s"},     {80, "1/50 s"},   {81, "1/60 s"},    {82, "1/80 s"},
    {83, "1/100 s"},   {84, "1/125 s"},   {85, "1/160 s"},    {87, "1/200 s"},  {88, "1/250 s"},   {89, "1/320 s"},
    {90, "1/400 s"},   {91, "1/500 s"},   {92, "1/640 s"},    {93, "1/800 s"},  {94, "1/1000 s"},  {95, "1/1250 s"},
    {96, "1/1600 s"},  {97, "1/2000 s"},  {98, "1/2500 s"},   {99, "1/3200 s"}, {100, "1/4000 s"}, {101, "1/5000 s"},
    {102, "1/6400 s"}, {108, "1/8000 s"}, {109, "1/10000 s"},
};

constexpr int32_t no_compensation = 50; // of 0 to 100, which stand for -5 to +5

// ---- What a person writes -------------------------------------------------------------------------------------------

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string_view::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

bool drop_start(std::string_view& text, std::string_view start) {
    if (!text.starts_with(start)) {
        return false;
    }
    text.remove_prefix(start.size());
    return true;
}

// A number without a sign, and nothing behind it.
std::optional<double> number_of(std::string_view text) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    const bool is_number = error == std::errc{} && end == text.data() + text.size() && std::isfinite(number);
    return is_number && text.front() != '-' ? std::optional(number) : std::nullopt;
}

// "1/30", "2", "0.5".
std::optional<double> fraction_of(std::string_view text) {
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos) {
        return number_of(text);
    }
    const std::optional<double> above = number_of(text.substr(0, slash));
    const std::optional<double> below = number_of(text.substr(slash + 1));
    return above && below && *below > 0 ? std::optional(*above / *below) : std::nullopt;
}

// How often a number doubles, for numbers that can be a camera's at all.
std::optional<double> doublings(std::optional<double> number) {
    return number && *number > 0 ? std::optional(std::log2(*number)) : std::nullopt;
}

// "f/2.8", "F2.8", "2.8". Two doublings of the light are one of the f-number.
std::optional<double> stops_of_aperture(std::string_view text) {
    text = trimmed(text);
    if (drop_start(text, "f") || drop_start(text, "F")) {
        drop_start(text, "/");
    }
    const std::optional<double> stops = doublings(number_of(text));
    return stops ? std::optional(2 * *stops) : std::nullopt;
}

// "1/30 s", "1/30", "2.5 s". Shorter times are higher.
std::optional<double> stops_of_shutter(std::string_view text) {
    text = trimmed(text);
    if (text.ends_with('s')) {
        text = trimmed(text.substr(0, text.size() - 1));
    }
    const std::optional<double> stops = doublings(fraction_of(text));
    return stops ? std::optional(-*stops) : std::nullopt;
}

// "ISO 400", "400".
std::optional<double> stops_of_iso(std::string_view text) {
    text = trimmed(text);
    drop_start(text, "ISO");
    return doublings(number_of(trimmed(text)));
}

// A dial shows a third as .3 and two as .7.
double thirds_of_dial(double stops) {
    constexpr double as_shown = 0.04;
    const double thirds = std::round(stops * 3);
    return std::abs(stops * 3 - thirds) < 3 * as_shown ? thirds / 3 : stops;
}

// "-1/3", "+1 2/3", "0", "-0.7 EV".
std::optional<double> stops_of_compensation(std::string_view text) {
    text = trimmed(text);
    if (text.ends_with("EV")) {
        text = trimmed(text.substr(0, text.size() - 2));
    }
    const bool is_negative = drop_start(text, "-");
    if (!is_negative) {
        drop_start(text, "+");
    }
    const size_t blank = text.find(' ');
    const bool has_two = blank != std::string_view::npos;
    const std::optional<double> whole = has_two ? number_of(text.substr(0, blank)) : 0;
    const std::optional<double> rest = fraction_of(has_two ? trimmed(text.substr(blank)) : text);
    if (!whole || !rest) {
        return std::nullopt;
    }
    const double stops = thirds_of_dial(*whole + *rest);
    return is_negative ? -stops : stops;
}

// ---- The camera's steps ---------------------------------------------------------------------------------------------

using Words = std::vector<std::pair<int32_t, std::string>>;

Words apertures() {
    Words words;
    for (const int32_t code : aperture_steps()) {
        words.emplace_back(code, aperture_text(code));
    }
    return words;
}

Words shutter_words() {
    Words words;
    for (const ShutterTime& time : shutter_times) {
        words.emplace_back(time.position, time.text);
    }
    return words;
}

Words sensitivities() {
    Words words;
    for (const int32_t iso : third_iso_steps()) {
        words.emplace_back(iso, std::to_string(iso));
    }
    return words;
}

// Thirds with their sign: "+1 2/3".
std::string text_of_thirds(int32_t thirds) {
    constexpr std::array fractions = {"", "1/3", "2/3"};
    const int32_t whole = std::abs(thirds) / 3;
    const std::string fraction = fractions[static_cast<size_t>(std::abs(thirds) % 3)];
    const std::string sign = thirds < 0 ? "-" : thirds > 0 ? "+" : "";
    if (fraction.empty() || whole == 0) {
        return sign + (fraction.empty() ? std::to_string(whole) : fraction);
    }
    return fmt::format("{}{} {}", sign, whole, fraction);
}

// The code's place in thirds, rounded.
int32_t thirds_of(int32_t code) {
    const int32_t distance = std::abs(code - no_compensation);
    const int32_t thirds = (distance * 3 + 5) / 10;
    return code < no_compensation ? -thirds : thirds;
}

Words compensations() {
    Words words;
    for (const int32_t code : compensation_steps()) {
        words.emplace_back(code, text_of_thirds(thirds_of(code)));
    }
    return words;
}

} // namespace

std::string aperture_text(int32_t f_number_times_ten) {
    if (f_number_times_ten == 0) {
        return nothing;
    }
    if (f_number_times_ten < 0) {
        return fmt::format("code {}", f_number_times_ten);
    }
    const int32_t tenths = f_number_times_ten % 10;
    return tenths == 0 ? fmt::format("f/{}", f_number_times_ten / 10)
                       : fmt::format("f/{}.{}", f_number_times_ten / 10, tenths);
}

std::string shutter_text(int32_t position) {
    const auto* const found = std::find_if(std::begin(shutter_times), std::end(shutter_times),
                                           [&](const ShutterTime& time) { return time.position == position; });
    return found == std::end(shutter_times) ? fmt::format("step {}", position) : found->text;
}

std::string iso_text(int32_t iso) {
    return iso == 0 ? "ISO auto" : fmt::format("ISO {}", iso);
}

std::string compensation_text(int32_t code) {
    if (code < 0 || code > 2 * no_compensation) {
        return fmt::format("code {}", code);
    }
    return text_of_thirds(thirds_of(code)) + " EV";
}

Scale::Scale(const char* name, const std::vector<std::pair<int32_t, std::string>>& steps, Read read)
    : name_(name), read_(read) {
    for (const auto& [code, word] : steps) {
        const double stops = read(word).value();
        steps_.push_back({code, word, stops});
    }
    std::ranges::sort(steps_, {}, &Step::stops);
}

const Step* Scale::step_of(int32_t code) const {
    const auto found = std::ranges::find(steps_, code, &Step::code);
    return found == steps_.end() ? nullptr : &*found;
}

Scale::Neighbours Scale::around(double stops) const {
    constexpr double same = 1e-6; // two steps are a third apart at least
    const auto above = std::ranges::lower_bound(steps_, stops - same, {}, &Step::stops);
    if (above == steps_.end()) {
        return {&steps_.back(), nullptr, &steps_.back()};
    }
    if (above->stops <= stops + same) {
        return {&*above, &*above, &*above};
    }
    if (above == steps_.begin()) {
        return {nullptr, &*above, &*above};
    }
    const auto below = std::prev(above);
    const bool is_below_nearer = stops - below->stops <= above->stops - stops + same;
    return {&*below, &*above, is_below_nearer ? &*below : &*above};
}

const Scale& aperture_scale() {
    static const Scale scale("aperture", apertures(), stops_of_aperture);
    return scale;
}

const Scale& shutter_scale() {
    static const Scale scale("shutter time", shutter_words(), stops_of_shutter);
    return scale;
}

const Scale& iso_scale() {
    static const Scale scale("ISO number", sensitivities(), stops_of_iso);
    return scale;
}

const Scale& compensation_scale() {
    static const Scale scale("compensation", compensations(), stops_of_compensation);
    return scale;
}

} // namespace desk
