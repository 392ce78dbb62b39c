// How the tests of the commands write down what is the same in every conversation.
#pragma once

#include <algorithm>
#include <cctype>
#include <cstring>
#include <dirent.h>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FakeHost.h"

inline Transcript joined(std::initializer_list<Transcript> parts) {
    Transcript all;
    for (const Transcript& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// Leaves out the trace of the conversions, which has tests of its own. What remains of a conversion is the line that
// the record copy logs under the manager's tag and, towards the phone, the question for the ISO steps.
inline Transcript without_conversions(const Transcript& transcript) {
    Transcript rest;
    std::copy_if(transcript.begin(), transcript.end(), std::back_inserter(rest),
                 [](const std::string& line) { return line.find(" ALG_SM ") == std::string::npos; });
    return rest;
}

// Numbers the addresses ("#7") anew, in the order in which they appear.
inline Transcript renumbered(Transcript transcript) {
    std::map<std::string, std::string> names;
    for (std::string& line : transcript) {
        const size_t first = line.find("add=#");
        if (first == std::string::npos) {
            continue;
        }
        const size_t name = first + 4;
        const size_t length = line.find_first_not_of("0123456789", name + 1) - name;
        const std::string old = line.substr(name, length);
        line.replace(name, old.size(), names.emplace(old, "#" + std::to_string(names.size() + 1)).first->second);
    }
    return transcript;
}

// What a command itself logged and asked for: neither the intake of its packets nor the trace of conversions. The
// addresses are those of replies only, so "#1" is the first reply that a line names.
inline Transcript command_lines(const Transcript& transcript) {
    static const char* const intake[] = {
        " ALG_SMM ADE_ShotMentor_Receive_Manager ",
        " ALG_SMM shotmentor_p_ReceiveData ",
        " ALG_SMM ADE_ShotMentor_Combine_BTData ",
        " ALG_SMM free Receive ",
        "__ui_set_shotmentor_state(",
    };
    Transcript rest = without_conversions(transcript);
    const auto is_intake = [](const std::string& line) {
        return std::any_of(std::begin(intake), std::end(intake),
                           [&line](const char* text) { return line.find(text) != std::string::npos; });
    };
    rest.erase(std::remove_if(rest.begin(), rest.end(), is_intake), rest.end());
    return renumbered(rest);
}

// The lines that hold a text.
inline Transcript lines_with(const std::string& text, Transcript lines) {
    std::erase_if(lines, [&text](const std::string& line) { return line.find(text) == std::string::npos; });
    return lines;
}

// What is left of one conversion of a stored preset to the phone.
inline Transcript converted_to_phone(const std::string& title, int custom_id) {
    return {"PLAIN ALG_SMM tag_custom : 740 => sm_tag_custom : 744 title : " + title +
                " custom_id : " + std::to_string(custom_id) + " server_id : 0",
            "User_Spec_Get_Value(272)"};
}

// The phone's record of a preset all of whose fields mean the same on both sides, such as preset() makes.
inline Bytes phone_record(const tag_custom_info& camera, int32_t linked_custom_mode = 0) {
    return image(camera) + words({linked_custom_mode});
}

// `count` presets with the custom ids 100, 101 and so on, in the order of their numbers.
inline std::vector<tag_custom_info> presets_from_100(int count) {
    std::vector<tag_custom_info> presets;
    for (int number = 0; number < count; ++number) {
        presets.push_back(preset(100 + number, number));
    }
    return presets;
}

// The camera that every_request() speaks of.
inline void store_presets_of_every_request(FakeHost& host) {
    host.presets = presets_from_100(3);
    host.linked[0] = 1;
    host.linked[1] = -1;
}

// Files and folders that this process holds open.
inline int open_files() {
    const std::unique_ptr<DIR, int (*)(DIR*)> files(opendir("/proc/self/fd"), closedir);
    int count = 0;
    while (files != nullptr && readdir(files.get()) != nullptr) {
        ++count;
    }
    return count;
}

// A text as part of a test's name: what is neither letter nor digit becomes an underscore.
inline std::string with_underscores(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char letter) { return std::isalnum(letter) == 0; }, '_');
    return text;
}

// The first of two replies is parked, the second is current.
inline void expect_first_parked(const FakeHost& host) {
    ASSERT_EQ(host.replies.size(), 2u);
    EXPECT_EQ(shotmentor_p_Full_Q_NUM, 1);
    EXPECT_EQ(shotmentor_p_Full_Q[0], host.replies[0].message.data);
    EXPECT_EQ(shotmentor_p_FullData, host.replies[1].message.data);
}

// How the test framework shows a request, and names a test of one.
inline void PrintTo(const NamedRequest& request, std::ostream* out) {
    *out << request.name;
}

inline std::string name_of_request(const testing::TestParamInfo<NamedRequest>& info) {
    return with_underscores(info.param.name);
}

// Puts a text into a field of fixed size, without a NUL where it fills the field.
template<size_t Size>
void put_text(char (&field)[Size], const std::string& text) {
    std::memset(field, 0, Size);
    std::memcpy(field, text.data(), std::min(Size, text.size()));
}

// 52 characters: a title or a path that leaves no room for its NUL.
inline const std::string fifty_two_characters = "A title of fifty-two characters, which has no NUL...";

inline Bytes zeros(size_t count) {
    return Bytes(count);
}
