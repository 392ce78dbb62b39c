#include "StandardFiles.h"

#include "Common/Text.h"
#include "Output.h"

namespace desk::phone {

bool is_standard(const std::string& path) {
    return path == "-";
}

std::string name_of_input(const std::string& path) {
    return is_standard(path) ? "standard input" : printable(path);
}

std::string name_of_output(const std::string& path) {
    return is_standard(path) ? "standard output" : printable(path);
}

Bytes read_input(const std::string& path, size_t most, const std::string& remedy) {
    return is_standard(path) ? read_standard_input(most, remedy) : read_file(path, most, remedy);
}

void write_output(const std::string& path, std::span<const uint8_t> bytes) {
    if (is_standard(path)) {
        print({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
    } else {
        write_file(path, bytes);
    }
}

} // namespace desk::phone
