#include "Exif.h"

#include <algorithm>
#include <libexif/exif-data.h>
#include <memory>

namespace desk::phone {
namespace {

constexpr std::array<uint8_t, 6> signature = {'E', 'x', 'i', 'f', 0, 0};
constexpr int last_orientation = 8;

struct Unref {
    void operator()(ExifData* data) const { exif_data_unref(data); }
};

} // namespace

int orientation_of(std::span<const uint8_t> segment) {
    if (segment.size() < signature.size() || !std::equal(signature.begin(), signature.end(), segment.begin())) {
        return upright;
    }
    const std::unique_ptr<ExifData, Unref> data(
        exif_data_new_from_data(segment.data(), static_cast<unsigned>(segment.size())));
    const ExifEntry* entry = data ? exif_data_get_entry(data.get(), EXIF_TAG_ORIENTATION) : nullptr;
    if (entry == nullptr || entry->format != EXIF_FORMAT_SHORT || entry->size < sizeof(ExifShort)) {
        return upright;
    }
    const int found = exif_get_short(entry->data, exif_data_get_byte_order(data.get()));
    return found >= upright && found <= last_orientation ? found : upright;
}

std::array<uint8_t, 32> exif_with(int orientation) {
    return {'E',  'x',  'i', 'f', 0, 0,       // signature
            'I',  'I',  42,  0,   8, 0, 0, 0, // least byte first; the directory
            1,    0,                          // has one entry:
            0x12, 0x01, 3,   0,   1, 0, 0, 0, static_cast<uint8_t>(orientation), 0, 0, 0, // the orientation, one number
            0,    0,    0,   0}; // and no other directory follows
}

} // namespace desk::phone
