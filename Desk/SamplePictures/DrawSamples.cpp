// Draws the camera's sample pictures at build time: all of them back to back into pictures.bin, and their sizes, for a
// C++ array, into sizes.inc. Usage: draw_samples FOLDER

#include <cstdio>
#include <exception>
#include <fstream>

#include "DrawPicture.h"
#include "SamplePictures.h"

namespace {

void draw_all(const std::string& folder) {
    std::ofstream pictures(folder + "/pictures.bin", std::ios::binary);
    std::ofstream sizes(folder + "/sizes.inc");
    pictures.exceptions(std::ios::failbit | std::ios::badbit);
    sizes.exceptions(std::ios::failbit | std::ios::badbit);
    for (int number = 0; number < desk::camera::sample_count; ++number) {
        const std::vector<uint8_t> picture = desk::camera::draw_picture(number);
        pictures.write(reinterpret_cast<const char*>(picture.data()), static_cast<std::streamsize>(picture.size()));
        sizes << picture.size() << ",\n";
    }
    pictures.close();
    sizes.close();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: draw_samples FOLDER\n", stderr);
        return 2;
    }
    try {
        draw_all(argv[1]);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "draw_samples: cannot write to %s: %s\n", argv[1], error.what());
        return 1;
    }
    return 0;
}
