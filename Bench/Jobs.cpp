#include "Jobs.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "ADE_ShotMentor.h"
#include "ADE_ShotMentor_Log.h"
#include "Host.h"
#include "Requests.h"

namespace bench {
namespace {

// ---- Conversions ----------------------------------------------------------------------------------------------------

tag_custom_info camera_record;
sm_tag_custom_info phone_record;

void prepare_records() {
    camera_record = camera_preset();
    ADE_PRO_CreateProFilm(&camera_preset(), &phone_record);
}

void convert_to_phone() {
    ADE_PRO_CreateProFilm(&camera_preset(), &phone_record);
}

void convert_to_camera() {
    ADE_PRO_CreateSysCustom(&phone_record, &camera_record);
}

// ---- Requests -------------------------------------------------------------------------------------------------------

Bytes request;
constexpr size_t packet_size = 512;

void deliver(size_t first, size_t end) {
    for (size_t at = first; at < end; at += packet_size) {
        ADE_ShotMentor_Receive_Manager(request.data() + at, static_cast<int>(std::min(packet_size, end - at)));
    }
}

void deliver_whole() {
    ADE_ShotMentor_Receive_Manager(request.data(), static_cast<int>(request.size()));
}

void deliver_in_packets() {
    deliver(0, request.size());
}

void deliver_one_packet() {
    deliver(packet_size, 2 * packet_size);
}

void deliver_last_packet() {
    deliver((request.size() - 1) / packet_size * packet_size, request.size());
}

void prepare_upload() {
    prepare_records();
    const Bytes picture(SM_REQUEST_LIMIT - sizeof(sm_frame) - sizeof phone_record, 0x55);
    request = store_request(phone_record, picture);
}

void prepare_upload_in_progress() {
    prepare_upload();
    deliver(0, packet_size);
}

void prepare_upload_but_the_last_packet() {
    prepare_upload();
    deliver(0, (request.size() - 1) / packet_size * packet_size);
}

template<int count>
void prepare_list() {
    preset_count = count;
    request = list_request();
}

void prepare_picture() {
    std::vector<uint8_t> picture(200000);
    uint32_t word = 1;
    for (uint8_t& byte : picture) {
        word = word * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(word >> 24);
    }
    make_picture(picture);
    request = picture_request(7, 7);
}

void prepare_picture_of_ff() {
    make_picture(std::vector<uint8_t>(200000, 0xFF));
    request = picture_request(7, 7);
}

void prepare_update() {
    prepare_records();
    request = update_request(phone_record);
}

void prepare_deletion() {
    preset_count = SM_PRESET_LIMIT;
    request = delete_request({{1, 101}});
}

void prepare_state_off() {
    request = state_off_request(SM_RETURN_TRUE);
}

void confirm() {
    ADE_ShotMentor_Return_To_Idle();
    while (shotmentor_p_FullData != nullptr) {
        ADE_ShotMentor_Result_Manager(nullptr, 0);
    }
}

// ---- Lines of the log -----------------------------------------------------------------------------------------------

void nothing() {}

template<alg_log_level level>
void log_a_line() {
    ALG_LOG(level, "BENCH", "length=%d, total=%d\n", 512, 600000);
}

constexpr Job all_jobs[] = {
    {"camera record to phone record", nothing, convert_to_phone, nothing},
    {"phone record to camera record", prepare_records, convert_to_camera, nothing},
    {"list of 0", prepare_list<0>, deliver_whole, confirm},
    {"list of 1", prepare_list<1>, deliver_whole, confirm},
    {"list of 40", prepare_list<40>, deliver_whole, confirm},
    {"picture of 200000 bytes", prepare_picture, deliver_whole, confirm},
    {"picture of 200000 bytes FF", prepare_picture_of_ff, deliver_whole, confirm},
    {"one packet of 512 bytes", prepare_upload_in_progress, deliver_one_packet, confirm},
    {"last packet of an upload", prepare_upload_but_the_last_packet, deliver_last_packet, confirm},
    {"upload of 600000 bytes by 512", prepare_upload, deliver_in_packets, confirm},
    {"update", prepare_update, deliver_whole, confirm},
    {"deletion of 1 of 40", prepare_deletion, deliver_whole, confirm},
    {"link state off", prepare_state_off, deliver_whole, confirm},
    {"a line of ALG_LOG_PLAIN", nothing, log_a_line<ALG_LOG_LEVEL_PLAIN>, nothing},
    {"a line of ALG_LOG_GREEN", nothing, log_a_line<ALG_LOG_LEVEL_GREEN>, nothing},
    {"a line of ALG_LOG_YELLOW", nothing, log_a_line<ALG_LOG_LEVEL_YELLOW>, nothing},
    {"a line of ALG_LOG_CYAN", nothing, log_a_line<ALG_LOG_LEVEL_CYAN>, nothing},
    {"a line of ALG_LOG_WARN", nothing, log_a_line<ALG_LOG_LEVEL_WARN>, nothing},
    {"a line of ALG_LOG_ERROR", nothing, log_a_line<ALG_LOG_LEVEL_ERROR>, nothing},
};

} // namespace

std::span<const Job> jobs() {
    return all_jobs;
}

} // namespace bench
