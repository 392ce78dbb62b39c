#include "SamplePictures.h"

#include <cstddef>
#include <numeric>

// The file of the build that holds all pictures, as an object of this program.
asm(".pushsection .rodata\n"
    "sample_pictures: .incbin \"" SAMPLE_PICTURES_FOLDER "/pictures.bin\"\n"
    ".popsection\n");
extern "C" const uint8_t sample_pictures[];

namespace desk::camera {
namespace {

constexpr size_t sizes[] = {
#include "sizes.inc"
};
static_assert(std::size(sizes) == sample_count);

} // namespace

std::span<const uint8_t> sample_picture(int number) {
    const size_t* const size = sizes + number;
    return {sample_pictures + std::accumulate(sizes, size, size_t{0}), *size};
}

} // namespace desk::camera
