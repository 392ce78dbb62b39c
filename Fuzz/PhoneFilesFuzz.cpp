// Any bytes as a picture, as a backup's manifest or as a capture. A picture that is fitted becomes a whole JPEG that is
// small enough, a manifest that is read is the same when it is written and read once more, and what a capture holds is
// told in lines that end; what is refused says so in one line.

#include <algorithm>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

#include "Capture/Messages.h"
#include "Capture/Reader.h"
#include "Common/Descriptor.h"
#include "Common/Failure.h"
#include "Common/Text.h"
#include "Input.h"
#include "Phone/BackupManifest.h"
#include "Phone/Fit.h"
#include "Phone/Jpeg.h"
#include "Phone/MessageHex.h"
#include "Phone/MessageWords.h"
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

// ---- Captures -------------------------------------------------------------------------------------------------------

void check_line(const std::string& line) {
    PROMISE(line == desk::printable(line));
}

void check_message(const desk::capture::Message& message) {
    if (message.fate == desk::capture::Message::Fate::whole) {
        size_t sum = 0;
        for (const uint32_t size : message.packet_sizes) {
            sum += size;
        }
        PROMISE(message.arrived == static_cast<size_t>(message.total) && sum == message.arrived);
    }
    PROMISE(message.bytes.size() <= std::max(message.arrived, size_t{16}));
    for (const desk::Form form : {desk::Form::words, desk::Form::raw}) {
        const MessageWords words = words_of(message, form);
        check_line(words.text);
        std::ranges::for_each(words.more, check_line);
    }
    std::ranges::for_each(hex_of(message), check_line);
}

void read_capture(std::span<const uint8_t> bytes) {
    const desk::Descriptor file(memfd_create("capture", MFD_CLOEXEC));
    PROMISE(write(file.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    constexpr size_t most_remarks = 101;
    size_t remarks = 0;
    uint32_t channels = 0;
    try {
        desk::capture::Reader reader("/proc/self/fd/" + std::to_string(file.get()), {});
        desk::capture::Messages messages;
        while (const auto event = reader.next()) {
            channels += event->kind == desk::capture::Event::Kind::opened ? 1 : 0;
            remarks += event->kind == desk::capture::Event::Kind::remark ? 1 : 0;
            check_line(event->text);
            PROMISE(event->channel.number <= channels && remarks <= most_remarks);
            std::ranges::for_each(messages.take(*event), check_message);
        }
        std::ranges::for_each(messages.finish(), check_message);
    } catch (const desk::Failure& failure) {
        PROMISE(failure.code() == desk::exit_usage);
        check_line(failure.what());
    }
}

bool is_capture(std::span<const uint8_t> bytes) {
    constexpr std::string_view magic = "btsnoop";
    return bytes.size() >= magic.size() && std::equal(magic.begin(), magic.end(), bytes.begin());
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
    } else if (is_capture(bytes)) {
        read_capture(bytes);
    } else {
        read_manifest({reinterpret_cast<const char*>(data), size});
    }
    return 0;
}
