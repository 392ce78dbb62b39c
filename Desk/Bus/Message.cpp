#include "Message.h"

#include <cstring>
#include <new>

#include "Common/Failure.h"

namespace desk::bus {

void Message::check_appended(int result) {
    if (result == -ENOMEM) {
        throw std::bad_alloc();
    }
    if (result < 0) {
        throw Failure(exit_machine,
                      std::string("cannot write a message for the system's D-Bus: ") + std::strerror(-result));
    }
}

void Message::append_bytes(std::span<const uint8_t> bytes) {
    check_appended(sd_bus_message_append_array(get(), 'y', bytes.data(), bytes.size()));
}

std::optional<std::string> Message::read_text() {
    const char* text = nullptr;
    if (read("s", &text) || read("o", &text)) {
        return std::string(text);
    }
    return std::nullopt;
}

Message Message::answer() const {
    sd_bus_message* answer = nullptr;
    check_appended(sd_bus_message_new_method_return(get(), &answer));
    return Message(answer);
}

void Message::answer_error(const char* name, const std::string& text) const {
    check_appended(sd_bus_reply_method_errorf(get(), name, "%s", text.c_str()));
}

} // namespace desk::bus
