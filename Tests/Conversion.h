// What the tests of the conversions share.
#pragma once

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "FakeHost.h"

// One call of a conversion or an approximation, and what it logged.
struct Outcome {
    int result;
    Transcript log;

    bool operator==(const Outcome&) const = default;
};

inline Outcome gives(int result, const Transcript& log) {
    return {result, log};
}

inline void PrintTo(const Outcome& outcome, std::ostream* out) {
    *out << outcome.result << " after " << testing::PrintToString(outcome.log);
}

// A record titled "Harbour" whose word at byte offset n holds 1000 + n.
template<class Record>
Record numbered_record() {
    Bytes bytes = Bytes(52);
    for (int32_t offset = 52; offset < static_cast<int32_t>(sizeof(Record)); offset += 4) {
        bytes = std::move(bytes) + words({1000 + offset});
    }
    Record record;
    std::memcpy(&record, bytes.data(), sizeof record);
    std::strcpy(record.title, "Harbour");
    return record;
}

// The 39 colour words of either record, in record order.
template<class Record>
std::vector<int32_t*> colour_words(Record& record) {
    std::vector<int32_t*> all;
    for (sm_color& color : record.cs_info.cs_color) {
        all.insert(all.end(), {&color.cs_color_r, &color.cs_color_g, &color.cs_color_b});
    }
    return all;
}

// The state that a conversion reads and leaves behind.
inline void set_conversion_state(int model, int sys_mode, int film_mode, int custom04) {
    gADE_PRO_model = model;
    pro_sys_mode = sys_mode;
    pro_film_mode = film_mode;
    pro_custom04_state = custom04;
}
