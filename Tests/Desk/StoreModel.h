// What a preset store must hold after a series of changes, kept apart from the store's own code, and what a store that
// lies on a disk holds in fact.
#pragma once

#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Camera/PresetStore.h"

struct Preset {
    std::string title;
    int custom_id = 0;
    int server_id = 0;
    std::string picture;
    bool operator==(const Preset&) const = default;
};

// What a store holds, down to the pictures' bytes.
struct Contents {
    std::vector<Preset> presets;          // in the order of their numbers
    std::array<int, 2> linked = {-1, -1}; // the number that CUSTOM1 and CUSTOM2 use
    bool operator==(const Contents&) const = default;
};

std::string to_string(const Contents& contents);

// A picture that belongs to a title, several sectors long.
std::string picture_of(const std::string& title);

// One change, as the store makes it and as it must be seen afterwards.
struct Change {
    std::string name;
    // Returns the store's answer; a preset that was saved is told in `custom_id`.
    std::function<int(desk::camera::PresetStore&, int& custom_id)> make;
    // The contents afterwards, `custom_id` as `make` told it.
    std::function<void(Contents&, int custom_id)> expect;
    int answer = SM_RETURN_TRUE; // without faults
};

Change saving(const std::string& title);
Change saving_a_picture_of_negative_length();
Change updating(int number, int server_id, const std::string& title); // the preset with this number
Change updating_nothing();
Change deleting(const std::set<int>& numbers);
Change linking(int custom_mode, int number);
Change unlinking(int custom_mode);

// Reads an open store through its interface, and its pictures from the folder.
Contents contents_of(const desk::camera::PresetStore& store, const std::filesystem::path& folder);

// What somebody finds who opens the store in this folder, uses it, and opens it again.
struct Finding {
    bool is_missing = false;          // there is no store; making one has worked
    std::optional<Contents> contents; // of the store that was there
    int next_custom_id = 0;           // that a further preset got
    std::string trouble;              // what was wrong in any case
};

Finding find(const std::filesystem::path& folder);
