// Stores presets so that it is known what becomes of them: foretold before, compared afterwards.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "CameraClient.h"
#include "Forecast/Forecast.h"
#include "PresetFiles/PresetFile.h"

namespace desk::phone {

// A preset that is to be stored, and what the camera will make of it.
struct Planned {
    sm_tag_custom_info wanted = {}; // as lists shall show it
    sm_tag_custom_info sent = {};
    std::vector<Change> changes = {};
};

// Where a stored preset is not as was foretold.
struct Surprise {
    int32_t custom_id;
    std::string title; // fit for a terminal
    Difference difference;
};

// What a phone gets of a picture: all of it up to its third JPEG stream, if it has one.
std::span<const uint8_t> as_fetched(std::span<const uint8_t> picture);

// One line each: "\"Dusk\" will be: iso 500 -> 400: the camera is set to full ISO steps".
std::string line_of(const Planned& planned, const Change& change);
std::string line_of(const Surprise& surprise);

class CarefulStore {
  public:
    // Lists what the camera holds, to know its state. `quiet`: nothing is told but errors.
    CarefulStore(CameraClient& camera, bool quiet);

    // What the camera held when it was listed last, and how many presets more it takes.
    const std::vector<sm_tag_custom_info>& listed() const { return listed_; }
    size_t room() const;

    // A preset in words is as lists have it; one in raw codes is sent as it stands. What is planned holds while the
    // camera is as it is now: of several presets, the first may take the room that a later one needs to keep its
    // aperture.
    Planned plan(const sm_tag_custom_info& preset, Form form, std::span<const uint8_t> picture) const;

    // Tells on standard error what will change now, a line each, and stores the preset. Where the result is not
    // SM_RETURN_TRUE the caller reports it: nothing was stored, or what was has been told.
    StoreReply store(const Planned& planned, std::span<const uint8_t> picture);

    // Lists the camera, fetches the pictures of what was stored, and returns what is not as foretold: the caller tells
    // it, and the tool then ends with exit_not_as_forecast.
    std::vector<Surprise> finish();

  private:
    struct Stored {
        Planned planned;
        CameraState state; // of the camera when it stored the preset
        Bytes picture;     // that it should have now
        int32_t custom_id;
    };

    void learn(const std::vector<sm_tag_custom_info>& listed);
    std::vector<Change> foreseen(const Planned& planned, std::span<const uint8_t> picture) const;
    bool can_store_twice() const;
    StoreReply store_once(const Planned& planned, std::span<const uint8_t> picture);
    StoreReply store_again(const Planned& planned, std::span<const uint8_t> picture, const StoreReply& first);
    bool is_as_wanted_now(const Planned& planned, const StoreReply& first);
    void take_back(const Planned& planned, const StoreReply& first, StoreReply& second);
    void compare(const Stored& stored);
    void compare_picture(const Stored& stored, const sm_tag_custom_info& shown);
    void surprise(const Stored& stored, const Difference& difference);
    void tell(const std::string& line) const;

    CameraClient& camera_;
    bool quiet_;
    std::vector<sm_tag_custom_info> listed_;
    CameraState state_;
    size_t stored_since_listed_ = 0;
    std::vector<Stored> stored_;
    std::vector<Surprise> surprises_;
};

} // namespace desk::phone
