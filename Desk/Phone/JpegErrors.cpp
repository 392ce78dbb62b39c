#include "JpegErrors.h"

#include <jerror.h>

#include "Jpeg.h"

namespace desk::phone {
namespace {

using Clock = std::chrono::steady_clock;

JpegErrors& errors_of(j_common_ptr worker) {
    return *reinterpret_cast<JpegErrors*>(worker->err);
}

[[noreturn]] void leave(j_common_ptr worker) {
    JpegErrors& errors = errors_of(worker);
    worker->err->format_message(worker, errors.fault);
    const int code = worker->err->msg_code;
    errors.beyond_budget = code == JERR_NO_BACKING_STORE || code == JERR_OUT_OF_MEMORY;
    std::longjmp(errors.way_out, 1);
}

void keep_silent(j_common_ptr) {}

void pass_over(j_common_ptr, int) {}

void leave_at_warning(j_common_ptr worker, int level) {
    if (level < 0) { // the others tell what is read
        leave(worker);
    }
}

void watch_budget(j_common_ptr worker) {
    const int scan = reinterpret_cast<j_decompress_ptr>(worker)->input_scan_number;
    const Clock::time_point deadline = reinterpret_cast<JpegMonitor*>(worker->progress)->deadline;
    if (scan > most_scans || Clock::now() > deadline) {
        leave_beyond_budget(worker);
    }
}

} // namespace

jpeg_error_mgr* prepare(JpegErrors& errors, JpegWarnings warnings) {
    jpeg_std_error(&errors.manager);
    errors.manager.error_exit = leave;
    errors.manager.output_message = keep_silent;
    errors.manager.emit_message = warnings == JpegWarnings::faults ? leave_at_warning : pass_over;
    return &errors.manager;
}

void leave_beyond_budget(j_common_ptr worker) {
    errors_of(worker).beyond_budget = true;
    std::longjmp(errors_of(worker).way_out, 1);
}

void set_budget(jpeg_decompress_struct& decoder, JpegMonitor& monitor, Clock::time_point deadline) {
    decoder.mem->max_memory_to_use = most_decoder_memory; // beyond that it gives up
    monitor.manager.progress_monitor = watch_budget;
    monitor.deadline = deadline;
    decoder.progress = &monitor.manager;
}

void open_picture(jpeg_decompress_struct& decoder, std::span<const uint8_t> picture) {
    jpeg_create_decompress(&decoder);
    jpeg_mem_src(&decoder, picture.data(), static_cast<unsigned long>(picture.size()));
}

} // namespace desk::phone
