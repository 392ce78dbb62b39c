#include "Floor.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Host.h"

namespace bench {
namespace {

constexpr char escape = '\033';

// Where a number begins that is no part of a word and of no colour.
bool begins_number(const std::string& text, size_t at) {
    const bool is_in_word = at > 0 && (std::isalnum(static_cast<unsigned char>(text[at - 1])) || text[at - 1] == '_');
    const size_t digit = text[at] == '-' ? at + 1 : at;
    return !is_in_word && digit < text.size() && std::isdigit(static_cast<unsigned char>(text[digit]));
}

// An address stays text: it is no int.
bool begins_hexadecimal(const char* text) {
    return std::strncmp(text, "0x", 2) == 0 && std::strspn(text + 2, "0123456789abcdef") <= 8;
}

} // namespace

FloorLine::FloorLine(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const char* const first = text.c_str() + at;
        char* end = nullptr;
        if (*first == escape) {
            end = const_cast<char*>(std::strchr(first, 'm')) + 1;
            format_.append(first, static_cast<size_t>(end - first));
        } else if (count_ < most_numbers && begins_number(text, at) && begins_hexadecimal(first)) {
            add_number("0x%x", static_cast<int>(std::strtoul(first + 2, &end, 16)));
        } else if (count_ < most_numbers && begins_number(text, at) && std::strncmp(first, "0x", 2) != 0) {
            add_number("%d", static_cast<int>(std::strtol(first, &end, 10)));
        } else {
            end = const_cast<char*>(first) + 1;
            format_ += *first == '%' ? "%%" : std::string(1, *first);
        }
        at = static_cast<size_t>(end - text.c_str());
    }
}

void FloorLine::add_number(const char* conversion, int number) {
    format_ += conversion;
    numbers_[count_++] = number;
}

void FloorLine::write_to(char (&text)[ALG_LOG_LINE_SIZE]) const {
    const int* const n = numbers_;
    std::snprintf(text, sizeof text, format_.c_str(), n[0], n[1], n[2], n[3], n[4], n[5]);
}

void FloorLine::log() const {
    char text[ALG_LOG_LINE_SIZE];
    write_to(text);
    __dlog_print(ALG_LOG_BUFFER, ALG_LOG_PRIORITY, "BENCH", "%s: %s(%d) > %s", "file", "function", 1, text);
}

std::vector<FloorLine> lines_of(void (*run)()) {
    std::vector<std::string> texts;
    lines = &texts;
    run();
    lines = nullptr;
    std::vector<FloorLine> floor;
    for (const std::string& text : texts) {
        char written[ALG_LOG_LINE_SIZE];
        floor.emplace_back(text);
        floor.back().write_to(written);
        if (text != written) {
            std::fprintf(stderr, "speed: the floor writes another line than %s", text.c_str());
            std::abort();
        }
    }
    return floor;
}

void copy_in_packets(size_t total, size_t packet) {
    static const std::vector<char> bytes(total, 0x55);
    auto* const buffer = static_cast<char*>(std::malloc(SM_REQUEST_LIMIT));
    for (size_t at = 0; at < total; at += packet) {
        std::memcpy(buffer + at, bytes.data() + at, std::min(packet, total - at));
    }
    asm volatile("" : : "r"(buffer) : "memory");
    std::free(buffer);
}

void read_and_search_picture() {
    constexpr unsigned char stream[] = {0xFF, 0xD8, 0xFF, 0xDB};
    std::FILE* const file = std::fopen(picture_path(), "rb");
    std::fseek(file, 0, SEEK_END);
    const auto size = static_cast<size_t>(std::ftell(file));
    std::fseek(file, 0, SEEK_SET);
    auto* const image = static_cast<char*>(std::malloc(size));
    if (std::fread(image, size, 1, file) != 1) {
        std::abort();
    }
    std::fclose(file);
    const void* found = memmem(image, size, stream, sizeof stream);
    asm volatile("" : : "r"(found) : "memory");
    std::free(image);
}

} // namespace bench
