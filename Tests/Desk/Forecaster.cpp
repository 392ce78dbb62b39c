// Forecasts for the conversations' tests. Standard input: cases, each a word for the ISO steps (0 full, 1 third, 2
// unknown), a word for the mode that the camera listed last (-1: unknown), and a phone record as a list has it.
// Standard output: for each case the record to send, and the one that a list will show of it.
#include <array>
#include <cstdio>
#include <span>

#include "Forecast/Forecast.h"
#include "Wire/Record.h"

namespace {

constexpr size_t head_size = 2 * sizeof(int32_t);
using Case = std::array<uint8_t, head_size + sizeof(sm_tag_custom_info)>;

desk::CameraState state_in(std::span<const uint8_t> head) {
    constexpr std::array steps = {desk::IsoSteps::full, desk::IsoSteps::third, desk::IsoSteps::unknown};
    desk::CameraState state = {steps.at(static_cast<size_t>(desk::get_word(head, 0))), desk::get_word(head, 4)};
    if (state.last_listed_mode == -1) {
        state.last_listed_mode.reset();
    }
    return state;
}

void write(const sm_tag_custom_info& record) {
    const desk::Bytes bytes = desk::encode(record);
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
}

} // namespace

int main() {
    Case bytes = {};
    while (std::fread(bytes.data(), 1, bytes.size(), stdin) == bytes.size()) {
        const std::span<const uint8_t> read = bytes;
        const sm_tag_custom_info sent = desk::sendable(desk::decode_phone_record(read.subspan(head_size)));
        write(sent);
        write(desk::forecast(sent, state_in(read.first(head_size))));
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
