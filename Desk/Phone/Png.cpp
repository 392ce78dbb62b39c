#include "Png.h"

#include <algorithm>
#include <array>
#include <csetjmp>
#include <cstring>
#include <png.h>

#include "Jpeg.h"
#include "Shrinker.h"

namespace desk::phone {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t signature_size = 8;
constexpr unsigned eighths = 8;
constexpr png_alloc_size_t longest_chunk = 8'000'000; // that is no part of the pixels, unpacked
constexpr png_uint_32 most_chunks = 4;                // that libpng keeps of those that say something of the picture

// libpng tells a fault and where to go on by callbacks that must not return. No object with a destructor may live in a
// function that they leave: what these functions make lies here.
struct Work {
    png_structp reader = nullptr;
    png_infop info = nullptr;
    std::span<const uint8_t> rest;
    std::jmp_buf way_out;
    std::array<char, 200> fault = {};

    Work() = default;
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;
    ~Work() { png_destroy_read_struct(&reader, &info, nullptr); }
};

[[noreturn]] void leave(png_structp reader, png_const_charp fault) {
    Work& work = *static_cast<Work*>(png_get_error_ptr(reader));
    std::strncpy(work.fault.data(), fault, work.fault.size() - 1);
    std::longjmp(work.way_out, 1);
}

void pass_over(png_structp, png_const_charp) {}

void read_some(png_structp reader, png_bytep bytes, size_t count) {
    Work& work = *static_cast<Work*>(png_get_io_ptr(reader));
    if (count > work.rest.size()) {
        png_error(reader, "its end is missing");
    }
    std::memcpy(bytes, work.rest.data(), count);
    work.rest = work.rest.subspan(count);
}

bool open(Work& work, std::span<const uint8_t> picture) {
    if (setjmp(work.way_out) != 0) {
        return false;
    }
    work.rest = picture;
    work.reader = png_create_read_struct(PNG_LIBPNG_VER_STRING, &work, leave, pass_over);
    work.info = work.reader == nullptr ? nullptr : png_create_info_struct(work.reader);
    if (work.info == nullptr) {
        return false;
    }
    png_set_read_fn(work.reader, &work, read_some);
    png_set_user_limits(work.reader, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
    png_set_chunk_malloc_max(work.reader, longest_chunk);
    png_set_chunk_cache_max(work.reader, most_chunks);
    png_set_crc_action(work.reader, PNG_CRC_ERROR_QUIT, PNG_CRC_ERROR_QUIT);
    png_read_info(work.reader, work.info);
    return true;
}

// Pixels of eight bits: grey or colours, and how much can be seen of them where that is not all. From here on libpng
// has memory for a row, however long it is said to be.
bool choose_output(Work& work) {
    if (setjmp(work.way_out) != 0) {
        return false;
    }
    png_set_expand(work.reader);
    png_set_scale_16(work.reader);
    static_cast<void>(png_set_interlace_handling(work.reader)); // the number of passes is known
    png_read_update_info(work.reader, work.info);
    return true;
}

// Into rows that lie behind each other: one, again and again, or all of them where the file is interlaced.
bool read_row(Work& work, uint8_t* row) {
    if (setjmp(work.way_out) != 0) {
        return false;
    }
    png_read_row(work.reader, row, nullptr);
    return true;
}

bool read_end(Work& work) {
    if (setjmp(work.way_out) != 0) {
        return false;
    }
    png_read_end(work.reader, work.info);
    return true;
}

void require(bool done, const Work& work) {
    if (!done) {
        throw PngFault(work.fault[0] == 0 ? "there is not enough memory" : work.fault.data());
    }
}

PngHeader header_of(const Work& work) {
    const bool has_colors = (png_get_color_type(work.reader, work.info) & PNG_COLOR_MASK_COLOR) != 0;
    return {{png_get_image_width(work.reader, work.info), png_get_image_height(work.reader, work.info)},
            size_t{has_colors ? 3U : 1U}};
}

// ---- Pixels ---------------------------------------------------------------------------------------------------------

constexpr uint8_t white = 255;

uint8_t over_white(uint8_t value, uint8_t opacity) {
    const unsigned both = value * unsigned{opacity} + white * (255U - opacity);
    return static_cast<uint8_t>((both + 127) / 255);
}

// A row with the opacity behind each pixel becomes one without.
std::span<const uint8_t> opaque(std::span<uint8_t> row, size_t components) {
    size_t end = 0;
    for (size_t at = 0; at < row.size(); at += components + 1) {
        const uint8_t opacity = row[at + components];
        for (size_t k = 0; k < components; ++k) {
            row[end++] = over_white(row[at + k], opacity);
        }
    }
    return row.first(end);
}

class PixelReader {
  public:
    PixelReader(Work& work, unsigned parts, Clock::time_point deadline)
        : work_(work), header_(header_of(work)), deadline_(deadline),
          shrinker_(header_.size, header_.components, parts, eighths),
          row_size_(png_get_rowbytes(work.reader, work.info)),
          has_opacity_(png_get_channels(work.reader, work.info) > header_.components) {}

    Shrinker& read() {
        if (png_get_interlace_type(work_.reader, work_.info) == PNG_INTERLACE_NONE) {
            read_row_by_row();
        } else {
            read_interlaced();
        }
        return shrinker_;
    }

  private:
    void read_into(uint8_t* row) {
        if (Clock::now() > deadline_) {
            throw PngBeyondBudget();
        }
        require(read_row(work_, row), work_);
    }

    void take(std::span<uint8_t> row) { shrinker_.add(has_opacity_ ? opaque(row, header_.components) : row); }

    void read_row_by_row() {
        Bytes row(row_size_);
        for (unsigned y = 0; y < header_.size.height; ++y) {
            read_into(row.data());
            take(row);
        }
    }

    void read_interlaced() {
        if (row_size_ * header_.size.height > most_decoder_memory) {
            throw PngBeyondBudget();
        }
        Bytes rows(row_size_ * header_.size.height);
        for (int pass = 0; pass < PNG_INTERLACE_ADAM7_PASSES; ++pass) {
            for (size_t y = 0; y < header_.size.height; ++y) {
                read_into(rows.data() + y * row_size_);
            }
        }
        for (size_t y = 0; y < header_.size.height; ++y) {
            take(std::span(rows).subspan(y * row_size_, row_size_));
        }
    }

    Work& work_;
    PngHeader header_;
    Clock::time_point deadline_;
    Shrinker shrinker_;
    size_t row_size_;
    bool has_opacity_;
};

// ---- What else a file says ------------------------------------------------------------------------------------------

int orientation_in(const Work& work) {
    constexpr std::array<uint8_t, 6> segment_begin = {'E', 'x', 'i', 'f', 0, 0}; // of the same data in a JPEG
    png_uint_32 size = 0;
    png_bytep data = nullptr;
    if (png_get_eXIf_1(work.reader, work.info, &size, &data) == 0) {
        return upright;
    }
    Bytes segment(segment_begin.begin(), segment_begin.end());
    segment.insert(segment.end(), data, data + size);
    return orientation_of(segment);
}

// One of another kind of colours, which a JPEG of these pixels must not have, is left out.
Bytes color_profile_in(const Work& work) {
    constexpr size_t kind_at = 16;
    const char* kind = header_of(work).components == 1 ? "GRAY" : "RGB ";
    png_charp name = nullptr;
    int compression = 0;
    png_bytep profile = nullptr;
    png_uint_32 size = 0;
    if (png_get_iCCP(work.reader, work.info, &name, &compression, &profile, &size) == 0 ||
        size < kind_at + std::strlen(kind) || std::memcmp(profile + kind_at, kind, std::strlen(kind)) != 0) {
        return {};
    }
    return {profile, profile + size};
}

} // namespace

bool is_png(std::span<const uint8_t> picture) {
    return picture.size() >= signature_size && png_sig_cmp(picture.data(), 0, signature_size) == 0;
}

PngHeader read_png_header(std::span<const uint8_t> picture) {
    Work work;
    require(open(work, picture), work);
    return header_of(work);
}

PngPicture read_png(std::span<const uint8_t> picture, unsigned parts, Clock::time_point deadline) {
    Work work;
    require(open(work, picture) && choose_output(work), work);
    PixelReader reader(work, parts, deadline);
    Shrinker& shrinker = reader.read();
    require(read_end(work), work); // the orientation may stand behind the pixels
    return {shrinker.size(), shrinker.take(), orientation_in(work), color_profile_in(work)};
}

} // namespace desk::phone
