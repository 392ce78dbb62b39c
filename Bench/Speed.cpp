// Times each job side by side with its floor and with what somebody would use instead. Only ratios within one run mean
// anything: see Docs/measurements.md for how it is run.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <pb_decode.h>
#include <pb_encode.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <string>

#include "ADE_ShotMentor.h"
#include "Floor.h"
#include "Host.h"
#include "Jobs.h"
#include "record.pb.h"

namespace bench {
namespace {

const Job& job(const char* name) {
    return *std::ranges::find_if(jobs(), [name](const Job& one) { return std::strcmp(one.name, name) == 0; });
}

// ---- The library, and the floor -------------------------------------------------------------------------------------

void time_job(benchmark::State& state, const Job& one) {
    one.prepare();
    for (auto _ : state) {
        one.run();
        one.clean();
    }
}

// The floor of a job: its lines, and whatever else cannot be avoided.
void time_floor(benchmark::State& state, const Job& one, void (*rest)()) {
    one.prepare();
    const std::vector<FloorLine> lines = lines_of(one.run);
    one.clean();
    for (auto _ : state) {
        for (const FloorLine& line : lines) {
            line.log();
        }
        rest();
    }
}

void copy_record() {
    static sm_tag_custom_info record;
    std::memcpy(&record, &camera_preset(), sizeof camera_preset());
    benchmark::DoNotOptimize(record);
}

void copy_list() {
    static char reply[SM_MALLOC_SIZE];
    for (int k = 0; k < SM_PRESET_LIMIT; ++k) {
        std::memcpy(reply + static_cast<size_t>(k) * sizeof(sm_tag_custom_info), &camera_preset(),
                    sizeof camera_preset());
    }
    benchmark::DoNotOptimize(reply);
}

void copy_upload() {
    copy_in_packets(SM_REQUEST_LIMIT, 512);
}

void add_pair(const char* name, void (*rest)()) {
    const Job& one = job(name);
    benchmark::RegisterBenchmark((std::string(name) + "/library").c_str(),
                                 [&one](benchmark::State& state) { time_job(state, one); });
    benchmark::RegisterBenchmark((std::string(name) + "/floor").c_str(),
                                 [&one, rest](benchmark::State& state) { time_floor(state, one, rest); });
}

// ---- What somebody would use instead --------------------------------------------------------------------------------

Record record_of_words() {
    Record record = Record_init_zero;
    record.words_count = sizeof(sm_tag_custom_info) / sizeof(int32_t);
    std::memcpy(record.words, &camera_preset(), sizeof camera_preset());
    return record;
}

size_t encode(const Record& record, std::vector<uint8_t>& bytes) {
    pb_ostream_t stream = pb_ostream_from_buffer(bytes.data(), bytes.size());
    if (!pb_encode(&stream, Record_fields, &record)) {
        std::abort();
    }
    return stream.bytes_written;
}

void nanopb_encode(benchmark::State& state) {
    const Record record = record_of_words();
    std::vector<uint8_t> bytes(Record_size);
    for (auto _ : state) {
        benchmark::DoNotOptimize(encode(record, bytes));
    }
}

void nanopb_decode(benchmark::State& state) {
    std::vector<uint8_t> bytes(Record_size);
    const size_t size = encode(record_of_words(), bytes);
    for (auto _ : state) {
        Record record = Record_init_zero;
        pb_istream_t stream = pb_istream_from_buffer(bytes.data(), size);
        benchmark::DoNotOptimize(pb_decode(&stream, Record_fields, &record));
    }
}

void line_by_spdlog(benchmark::State& state) {
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_st>());
    for (auto _ : state) {
        logger.info("length={}, total={}", 512, 600000);
    }
}

void line_by_fmt(benchmark::State& state) {
    char text[ALG_LOG_LINE_SIZE];
    for (auto _ : state) {
        *fmt::format_to(text, "\033[mlength={}, total={}\033[m\n", 512, 600000) = '\0';
        benchmark::DoNotOptimize(text);
    }
}

void nothing_else() {}

// ---- Growth ---------------------------------------------------------------------------------------------------------

void list_of(benchmark::State& state) {
    preset_count = static_cast<int>(state.range(0));
    const sm_frame request = {SM_FUNCTION_SEND_LIST, sizeof request};
    for (auto _ : state) {
        ADE_ShotMentor_Receive_Manager(&request, sizeof request);
        ADE_ShotMentor_Result_Manager(nullptr, 0);
    }
}

void upload_of(benchmark::State& state) {
    std::vector<char> bytes(static_cast<size_t>(state.range(0)), 0x55);
    const auto packet = static_cast<size_t>(state.range(1));
    const sm_frame head = {SM_FUNCTION_RECEIVE_PRESET, static_cast<int32_t>(bytes.size())};
    std::memcpy(bytes.data(), &head, sizeof head);
    for (auto _ : state) {
        for (size_t at = 0; at < bytes.size(); at += packet) {
            ADE_ShotMentor_Receive_Manager(bytes.data() + at, static_cast<int>(std::min(packet, bytes.size() - at)));
        }
        ADE_ShotMentor_Result_Manager(nullptr, 0);
    }
}

void copy_of(benchmark::State& state) {
    for (auto _ : state) {
        copy_in_packets(static_cast<size_t>(state.range(0)), static_cast<size_t>(state.range(1)));
    }
}

void add_growth() {
    auto* const list = benchmark::RegisterBenchmark("growth of a list", list_of);
    for (const int count : {1, 5, 10, 15, 20, 25, 30, 35, 40}) {
        list->Arg(count);
    }
    auto* const upload = benchmark::RegisterBenchmark("growth of an upload", upload_of);
    auto* const copy = benchmark::RegisterBenchmark("reassembly by memcpy", copy_of);
    for (const int packet : {20, 512, 4096, 65535}) {
        for (const int size : {1000, 100000, 200000, 300000, 400000, 500000, 600000}) {
            upload->Args({size, packet});
        }
        copy->Args({SM_REQUEST_LIMIT, packet});
    }
}

void add_all() {
    add_pair("camera record to phone record", copy_record);
    add_pair("phone record to camera record", copy_record);
    add_pair("list of 40", copy_list);
    add_pair("upload of 600000 bytes by 512", copy_upload);
    add_pair("picture of 200000 bytes", read_and_search_picture);
    add_pair("picture of 200000 bytes FF", read_and_search_picture);
    add_pair("a line of ALG_LOG_PLAIN", nothing_else);
    benchmark::RegisterBenchmark("camera record to phone record/nanopb encode", nanopb_encode);
    benchmark::RegisterBenchmark("phone record to camera record/nanopb decode", nanopb_decode);
    benchmark::RegisterBenchmark("a line of ALG_LOG_PLAIN/spdlog, null sink", line_by_spdlog);
    benchmark::RegisterBenchmark("a line of ALG_LOG_PLAIN/fmt", line_by_fmt);
    add_growth();
}

} // namespace
} // namespace bench

int main(int argc, char** argv) {
    bench::add_all();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
