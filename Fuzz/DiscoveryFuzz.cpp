// Any packets as the answers of a Bluetooth device that is asked where a camera listens. Whatever comes, the questions
// come to an end, a port that is found is one that there is, and what is sent is short.

#include "Input.h"
#include "Links/PsmQuery.h"
#include "Links/ServiceSearch.h"

namespace {

constexpr uint16_t last_channel = 30;
constexpr uint16_t last_psm = 255;
constexpr size_t longest_packet = 512;

// Nothing but the device's own questions lasts longer than a fuzzer's input.
void ask(desk::Enquiry& enquiry, uint16_t last_port, size_t longest_sent, fuzz::Input& input) {
    PROMISE(!enquiry.first_packet().empty() && enquiry.first_packet().size() <= longest_sent);
    while (!input.empty()) {
        const desk::Finding finding = enquiry.take(input.bytes(input.size_below(longest_packet)));
        const bool is_found = finding.kind == desk::Finding::Kind::found;
        PROMISE(is_found ? finding.port >= 1 && finding.port <= last_port : finding.port == 0);
        PROMISE(finding.to_send.size() <= longest_sent);
        if (finding.kind != desk::Finding::Kind::nothing_yet) {
            PROMISE(finding.to_send.empty());
            return;
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input input(data, size);
    if (input.flag()) {
        constexpr size_t longest_request = 48;
        desk::ServiceSearch search(desk::Uuid{});
        ask(search, last_channel, longest_request, input);
    } else {
        constexpr size_t least_mtu = 23;
        desk::PsmQuery query(desk::Uuid{});
        ask(query, last_psm, least_mtu, input);
    }
    return 0;
}
