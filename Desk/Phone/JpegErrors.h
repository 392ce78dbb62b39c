// How work on a JPEG ends early: at a fault, or when it costs more than its budget. libjpeg reports both through
// callbacks that must not return.
#pragma once

#include <chrono>
#include <csetjmp>
#include <cstdio>
#include <jpeglib.h>
#include <span>

#include "Wire/Record.h"

namespace desk::phone {

struct JpegErrors {
    jpeg_error_mgr manager; // first, so that libjpeg's pointer to it is one to this
    std::jmp_buf way_out;
    char fault[JMSG_LENGTH_MAX];
    bool beyond_budget;
};

// Warnings are for pictures that come out with wrong pixels: whoever draws overlooks them, whoever sends does not.
enum class JpegWarnings { overlooked, faults };

jpeg_error_mgr* prepare(JpegErrors& errors, JpegWarnings warnings);

// Leaves the work for `errors.way_out`. `worker` is a decoder or an encoder.
[[noreturn]] void leave_beyond_budget(j_common_ptr worker);

// What a decoder calls again and again while it works.
struct JpegMonitor {
    jpeg_progress_mgr manager; // first, as above
    std::chrono::steady_clock::time_point deadline;
};

// From here on the decoder has until the deadline, `most_scans` and `most_decoder_memory`.
void set_budget(jpeg_decompress_struct& decoder, JpegMonitor& monitor, std::chrono::steady_clock::time_point deadline);

// Makes a decoder that is at the picture's start.
void open_picture(jpeg_decompress_struct& decoder, std::span<const uint8_t> picture);

} // namespace desk::phone
