// Any bytes as a picture or as a backup's manifest. A picture that is fitted becomes a whole JPEG that is small enough,
// and a manifest that is read is the same when it is written and read once more; what is refused says so in one line.

#include <algorithm>
#include <string>
#include <string_view>

#include "Common/Failure.h"
#include "Input.h"
#include "Phone/BackupManifest.h"
#include "Phone/Fit.h"
#include "Phone/Jpeg.h"
#include "Phone/Png.h"

namespace {

using namespace desk::phone;

constexpr size_t longest_fitted = 4000;
constexpr size_t most_pixels = 1'000'000; // a run that takes seconds tries nothing else
const std::string file_name = "dusk";

void check_refusal(const desk::Failure& failure) {
    const std::string_view line = failure.what();
    PROMISE(failure.code() == desk::exit_usage);
    PROMISE(line.find(file_name) != std::string_view::npos && line.find('\n') == std::string_view::npos);
}

void fit(std::span<const uint8_t> picture,
         FittedPicture (*fitted)(std::span<const uint8_t>, size_t, const std::string&)) {
    try {
        const FittedPicture small = fitted(picture, longest_fitted, file_name);
        PROMISE(small.jpeg.size() <= longest_fitted);
        PROMISE(is_jpeg(small.jpeg) && !fault_of_jpeg(small.jpeg));
        PROMISE(small.after.width <= small.before.width && small.after.height <= small.before.height);
    } catch (const desk::Failure& failure) {
        check_refusal(failure);
    }
}

void read_jpeg(std::span<const uint8_t> picture) {
    const std::optional<Pixels> pixels = decode_jpeg(picture, {64, 64});
    PROMISE(!pixels || pixels->rgb.size() >= pixels->row_size * static_cast<size_t>(pixels->height));
    const std::optional<std::string> fault = fault_of_jpeg(picture);
    PROMISE(!fault || fault->find('\n') == std::string::npos);
    if (is_jpeg(picture)) {
        fit(picture, fit_jpeg);
    }
}

bool is_large(std::span<const uint8_t> picture) {
    try {
        const PictureSize size = read_png_header(picture).size;
        return size_t{size.width} * size.height > most_pixels;
    } catch (const PngFault&) {
        return false;
    } catch (const PngBeyondBudget&) {
        return false;
    }
}

void read_manifest(std::string_view text) {
    try {
        const BackupManifest manifest = manifest_from(text, file_name);
        for (const std::string& name : manifest.names()) {
            PROMISE(!name.empty() && name.find('/') == std::string::npos && name != "." && name != "..");
        }
        const std::string written = text_of(manifest);
        PROMISE(text_of(manifest_from(written, file_name)) == written);
    } catch (const desk::Failure& failure) {
        check_refusal(failure);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::span<const uint8_t> bytes(data, size);
    if (is_png(bytes)) {
        if (!is_large(bytes)) {
            fit(bytes, fit_png);
        }
    } else if (size > 0 && data[0] == 0xFF) {
        read_jpeg(bytes);
    } else {
        read_manifest({reinterpret_cast<const char*>(data), size});
    }
    return 0;
}
