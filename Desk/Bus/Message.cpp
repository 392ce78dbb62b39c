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

std::optional<std::string> Message::read_text() {
    const char* text = nullptr;
    if (read("s", &text) || read("o", &text)) {
        return std::string(text);
    }
    return std::nullopt;
}

} // namespace desk::bus
