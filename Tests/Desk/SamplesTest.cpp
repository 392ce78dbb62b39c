// What a new store begins with.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <jpeglib.h>

#include "ADE_ShotMentor.h"
#include "Camera/Samples.h"
#include "SamplePictures/DrawPicture.h"
#include "SamplePictures/SamplePictures.h"

namespace {

namespace fs = std::filesystem;
using desk::camera::PresetStore;
using Picture = std::vector<uint8_t>;

// A folder with a new store that holds the samples, made once for all tests that only look.
class Samples : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        std::string path = (fs::temp_directory_path() / "samples-XXXXXX").string();
        folder = mkdtemp(path.data());
        PresetStore store = PresetStore::open(folder, true);
        desk::camera::add_samples(store);
        presets = store.presets();
    }
    static void TearDownTestSuite() { fs::remove_all(folder); }

    static inline fs::path folder;
    static inline std::vector<tag_custom_info> presets;
};

// 65535 and -1 stand in the tables for steps that the camera lacks.
template<size_t size>
bool has_step(const int32_t (&table)[size], int32_t code) {
    return code != 65535 && code != -1 && std::ranges::find(table, code) != std::end(table);
}

TEST_F(Samples, AreTwelvePresetsWithTitlesOfTheirOwn) {
    std::set<std::string> titles;
    for (const tag_custom_info& preset : presets) {
        titles.insert(preset.title);
    }
    EXPECT_EQ(presets.size(), 12U);
    EXPECT_EQ(titles.size(), 12U);
    EXPECT_TRUE(titles.contains("Golden hour"));
    EXPECT_TRUE(titles.contains("Caf\xC3\xA9, rainy day"));
}

TEST_F(Samples, UseEveryModeOfTheCamera) {
    std::set<int> modes;
    for (const tag_custom_info& preset : presets) {
        modes.insert(preset.mode);
    }
    EXPECT_EQ(modes, (std::set{0, 1, 2, 3, 4, 5}));
}

TEST_F(Samples, UseExposureCodesThatTheCameraHas) {
    for (const tag_custom_info& preset : presets) {
        SCOPED_TRACE(preset.title);
        EXPECT_TRUE(has_step(tKT7_APEX_AV, preset.av_index)) << preset.av_index;
        EXPECT_TRUE(preset.tv_index == 0 || has_step(tKT7_APEX_TV, preset.tv_index)) << preset.tv_index;
        EXPECT_TRUE(has_step(tKT7_APEX_SV, preset.iso)) << preset.iso;
        EXPECT_TRUE(has_step(tKT7_APEX_SV_1_3, preset.iso_1_3)) << preset.iso_1_3;
        EXPECT_GE(preset.ev_step, 0);
        EXPECT_LE(preset.ev_step, 30);
    }
}

TEST_F(Samples, NameTheSameSensitivityInFullAndInThirdSteps) {
    for (const tag_custom_info& preset : presets) {
        const auto full = std::ranges::find(tKT7_APEX_SV, preset.iso) - std::begin(tKT7_APEX_SV);
        const auto third = std::ranges::find(tKT7_APEX_SV_1_3, preset.iso_1_3) - std::begin(tKT7_APEX_SV_1_3);
        EXPECT_EQ(full, third) << preset.title;
    }
}

TEST_F(Samples, CarryApertureAndShutterTimeWhereTheModeDoes) {
    for (const tag_custom_info& preset : presets) {
        SCOPED_TRACE(preset.title);
        EXPECT_EQ(preset.av_index != 0, preset.mode == 2 || preset.mode >= 4);
        EXPECT_EQ(preset.tv_index != 0, preset.mode >= 3);
    }
}

TEST_F(Samples, KeepColorsOnTheCamerasScale) {
    std::set<int> styles;
    std::set<int> values;
    for (const tag_custom_info& preset : presets) {
        styles.insert(preset.cs_info.color_style);
        for (const sm_color& color : preset.cs_info.cs_color) {
            values.insert({color.cs_color_r, color.cs_color_g, color.cs_color_b});
        }
    }
    EXPECT_GE(styles.size(), 6U);
    EXPECT_GE(*styles.begin(), 0);
    EXPECT_LE(*styles.rbegin(), 13);
    EXPECT_EQ(*values.begin(), 0);
    EXPECT_EQ(*values.rbegin(), 200);
}

TEST_F(Samples, NameAColorTemperatureExactlyForTheKelvinWhiteBalance) {
    std::set<int> types;
    for (const tag_custom_info& preset : presets) {
        types.insert(preset.type);
        EXPECT_EQ(preset.k_value != 0, preset.type == SM_WHITE_BALANCE_KELVIN) << preset.title;
    }
    EXPECT_TRUE(types.contains(SM_WHITE_BALANCE_KELVIN));
    EXPECT_GE(types.size(), 4U);
}

TEST_F(Samples, AreMadeByTheCamera) {
    for (const tag_custom_info& preset : presets) {
        EXPECT_EQ(preset.made_id, 0x144) << preset.title;
    }
}

TEST_F(Samples, LinkNumbers2And5ToTheCustomModes) {
    const PresetStore store = PresetStore::open(folder, false);
    EXPECT_EQ(store.linked(0), 2);
    EXPECT_EQ(store.linked(1), 5);
}

TEST_F(Samples, HaveTheirPictures) {
    for (const tag_custom_info& preset : presets) {
        EXPECT_TRUE(fs::exists(folder / preset.screennail_path)) << preset.screennail_path;
    }
}

TEST_F(Samples, AreRefusedByAStoreWithoutRoomForThem) {
    std::string path = (fs::temp_directory_path() / "samples-XXXXXX").string();
    const fs::path full = mkdtemp(path.data());
    {
        PresetStore store = PresetStore::open(full, true);
        for (int number = 0; number < 39; ++number) {
            tag_custom_info preset{};
            ASSERT_EQ(store.save(preset, "x", 1), 1);
        }
        EXPECT_THROW(desk::camera::add_samples(store), desk::Failure);
    }
    fs::remove_all(full);
}

// ---- Pictures -------------------------------------------------------------------------------------------------------

constexpr std::array<uint8_t, 4> stream_start{0xFF, 0xD8, 0xFF, 0xDB};

std::vector<size_t> stream_starts(const Picture& picture) {
    std::vector<size_t> starts;
    for (auto at = picture.begin();; ++at) {
        at = std::search(at, picture.end(), stream_start.begin(), stream_start.end());
        if (at == picture.end()) {
            return starts;
        }
        starts.push_back(static_cast<size_t>(at - picture.begin()));
    }
}

std::vector<Picture> streams_of(const Picture& picture) {
    std::vector<size_t> borders = stream_starts(picture);
    borders.push_back(picture.size());
    std::vector<Picture> streams;
    for (size_t number = 0; number + 1 < borders.size(); ++number) {
        streams.emplace_back(picture.begin() + static_cast<std::ptrdiff_t>(borders[number]),
                             picture.begin() + static_cast<std::ptrdiff_t>(borders[number + 1]));
    }
    return streams;
}

struct Decoded {
    unsigned width = 0;
    unsigned height = 0;
    long warnings = 0;
    double red = 0, green = 0, blue = 0; // means, 0 to 255
};

// Fails the process on data that is no JPEG at all, as libjpeg does.
Decoded decode(const Picture& stream) {
    jpeg_decompress_struct decoder{};
    jpeg_error_mgr errors{};
    decoder.err = jpeg_std_error(&errors);
    jpeg_create_decompress(&decoder);
    jpeg_mem_src(&decoder, stream.data(), stream.size());
    jpeg_read_header(&decoder, TRUE);
    decoder.out_color_space = JCS_RGB;
    jpeg_start_decompress(&decoder);
    std::vector<uint8_t> row(size_t{3} * decoder.output_width);
    std::array<double, 3> sums{};
    while (decoder.output_scanline < decoder.output_height) {
        JSAMPROW line = row.data();
        jpeg_read_scanlines(&decoder, &line, 1);
        for (size_t at = 0; at < row.size(); ++at) {
            sums[at % 3] += row[at];
        }
    }
    jpeg_finish_decompress(&decoder);
    const double pixels = static_cast<double>(decoder.output_width) * decoder.output_height;
    const Decoded decoded{decoder.output_width, decoder.output_height, errors.num_warnings,
                          sums[0] / pixels,     sums[1] / pixels,      sums[2] / pixels};
    jpeg_destroy_decompress(&decoder);
    return decoded;
}

Picture picture_of(int number) {
    const auto bytes = desk::camera::sample_picture(number);
    return {bytes.begin(), bytes.end()};
}

TEST(SamplePicture, HoldsFourStreamsThatBeginWithTheirTables) {
    for (const int number : {0, 5, 11}) {
        const Picture picture = picture_of(number);
        const std::vector<size_t> starts = stream_starts(picture);
        ASSERT_EQ(starts.size(), 4U);
        EXPECT_EQ(starts.front(), 0U);
    }
}

TEST(SamplePicture, EndsEachStreamWhereTheNextBegins) {
    for (const Picture& stream : streams_of(picture_of(1))) {
        ASSERT_GE(stream.size(), 4U);
        EXPECT_EQ(stream[stream.size() - 2], 0xFF);
        EXPECT_EQ(stream[stream.size() - 1], 0xD9);
    }
}

TEST(SamplePicture, DecodesAsOnePictureInFourSizes) {
    const std::vector<Picture> streams = streams_of(picture_of(2));
    ASSERT_EQ(streams.size(), 4U);
    const Decoded whole = decode(streams[0]);
    for (unsigned number = 0; number < 4; ++number) {
        SCOPED_TRACE(number);
        const Decoded decoded = decode(streams[number]);
        EXPECT_EQ(decoded.warnings, 0);
        EXPECT_EQ(decoded.width, 1280U >> number);
        EXPECT_EQ(decoded.height, 856U >> number);
        EXPECT_NEAR(decoded.red, whole.red, 2);
        EXPECT_NEAR(decoded.green, whole.green, 2);
        EXPECT_NEAR(decoded.blue, whole.blue, 2);
    }
}

TEST(SamplePicture, HasTheSizeOfACamerasPicture) {
    for (const int number : {0, 7}) {
        const Picture picture = picture_of(number);
        EXPECT_GT(picture.size(), 200'000U);
        EXPECT_LT(picture.size(), 500'000U);
    }
}

TEST(SamplePicture, IsWhatIsDrawnForItsNumber) {
    EXPECT_EQ(picture_of(3), desk::camera::draw_picture(3));
}

TEST(SamplePicture, HasColorsOfItsOwnForEachNumber) {
    std::set<std::tuple<int, int, int>> colors;
    for (int number = 0; number < 12; ++number) {
        const Decoded smallest = decode(streams_of(picture_of(number)).back());
        colors.emplace(static_cast<int>(smallest.red / 4), static_cast<int>(smallest.green / 4),
                       static_cast<int>(smallest.blue / 4));
    }
    EXPECT_EQ(colors.size(), 12U);
}

TEST(SamplePicture, IsDrawnForAnyNumber) {
    for (const int number : {-7, 1000}) {
        EXPECT_EQ(stream_starts(desk::camera::draw_picture(number)).size(), 4U);
    }
}

} // namespace
