#include "Services.h"

#include <algorithm>
#include <exception>
#include <fmt/format.h>
#include <span>
#include <stdexcept>
#include <string>

#include "ADE_ShotMentor_Services.h"
#include "LabTalk.h"
#include "Talk.h"

namespace desk::camera {
namespace {

Services* current = nullptr;

void complain(const char* service, const std::string& what) noexcept {
    try {
        say({"failure", {{"service", service}, {"reason", what}}, std::string(service) + " failed: " + what});
    } catch (...) { // no memory even for that
    }
}

// Runs a service's work. The library is no place for an exception.
template<class Result, class Work>
Result answer(const char* service, Result when_it_fails, Work work) noexcept {
    try {
        if (current == nullptr) {
            throw std::logic_error("there is no camera");
        }
        return work(*current);
    } catch (const std::exception& error) {
        complain(service, error.what());
    } catch (...) {
        complain(service, "unknown exception");
    }
    return when_it_fails;
}

// What the phone gets to know of a refusal: the number, or, where the library goes on as if the service had done it,
// nothing.
enum class Told { the_number, nothing };

// The camera's user gets the reason.
int tell_refusal(const Services& services, const char* what, int result, Told told = Told::the_number) {
    if (result != SM_RETURN_TRUE) {
        const std::string& reason = services.store.last_error();
        const bool is_told = told == Told::the_number;
        say({"refusal",
             {{"change", what}, {"result", result}, {"phone_is_told", is_told}, {"reason", reason}},
             fmt::format("{} refused with {}{}{}", what, result, is_told ? "" : ", which the phone is not told",
                         reason.empty() ? "" : ": " + reason)});
    }
    return result;
}

void tell_of_use(bool in_use) {
    say({"phone",
         {{"event", in_use ? "uses the feature" : "uses the feature no more"}},
         in_use ? "the phone uses the feature" : "the phone uses the feature no more"});
}

// The store is not asked.
int answer_of_lab(const char* fault, const char* what, int result) {
    tell_of_fault(fault, fmt::format("{} is answered with {}, and nothing was done", what, result));
    return result;
}

// The library opens whatever lies at a picture's path. Without a path it finds no picture.
void keep_from_the_library(tag_custom_info& preset, const std::string& fault) {
    say({"refusal",
         {{"picture_of", preset.custom_id}, {"reason", fault}},
         fmt::format("the phone gets an empty picture of the preset with id {}: {}", preset.custom_id, fault)});
    std::ranges::fill(preset.screennail_path, '\0');
}

std::span<const uint8_t> reply_of(const bt_msg_info& message) {
    const size_t length = message.length > 0 ? static_cast<size_t>(message.length) : 0;
    return {static_cast<const uint8_t*>(message.data), length};
}

} // namespace

Services::Services(PresetStore& preset_store, SendQueue* send_queue, const Knobs& lab_knobs)
    : store(preset_store), sends(send_queue), knobs(lab_knobs) {
    current = this;
}

Services::~Services() {
    current = nullptr;
}

} // namespace desk::camera

// ---- What the library imports ---------------------------------------------------------------------------------------

using desk::camera::answer;
using desk::camera::Services;
using desk::camera::tell_refusal;

extern "C" {

int __ui_set_shotmentor_state(int state) {
    return answer("__ui_set_shotmentor_state", int{SM_RETURN_FAIL}, [&](Services& services) {
        if (services.in_use != (state == 1)) {
            services.in_use = state == 1;
            desk::camera::tell_of_use(services.in_use);
        }
        return int{SM_RETURN_TRUE};
    });
}

bool __ui_get_bt_state_for_phone(void) {
    return answer("__ui_get_bt_state_for_phone", false, [](Services& services) {
        services.calls.link_is_down = services.knobs.link_down;
        if (services.knobs.link_down) {
            desk::camera::tell_of_fault("link-down", "the link state was reported as down");
        }
        return !services.knobs.link_down;
    });
}

int __ui_get_custom_mode_list_info(tag_custom_info* presets, int* count) {
    return answer("__ui_get_custom_mode_list_info", int{SM_RETURN_FAIL}, [&](Services& services) {
        const std::vector<tag_custom_info> stored = services.store.presets();
        const size_t reported = std::min<size_t>(stored.size(), SM_PRESET_LIMIT);
        std::copy_n(stored.begin(), reported, presets);
        *count = static_cast<int>(reported);
        return int{SM_RETURN_TRUE};
    });
}

int __ui_get_linked_preseet_num_for_phone(int custom_mode) {
    return answer("__ui_get_linked_preseet_num_for_phone", -1,
                  [&](Services& services) { return services.store.linked(custom_mode); });
}

bool __ui_get_preset_info(int custom_id, tag_custom_info* preset) {
    return answer("__ui_get_preset_info", false, [&](Services& services) {
        const std::optional<tag_custom_info> found = services.store.find(custom_id);
        if (found) {
            *preset = *found;
            if (const std::string fault = services.store.fault_of_picture(*found); !fault.empty()) {
                desk::camera::keep_from_the_library(*preset, fault);
            }
        }
        services.calls.found = found;
        services.calls.looked_up = true;
        return found.has_value();
    });
}

int __ui_save_downloaded_preset(tag_custom_info* preset, const void* image, int length) {
    return answer("__ui_save_downloaded_preset", int{SM_RETURN_FAIL}, [&](Services& services) {
        if (services.knobs.save_result) {
            return desk::camera::answer_of_lab("save-result", "the store", *services.knobs.save_result);
        }
        return tell_refusal(services, "storing a preset", services.store.save(*preset, image, length));
    });
}

int __ui_preset_update_comfirm(int custom_id, int server_id, const char* title) {
    return answer("__ui_preset_update_comfirm", int{SM_RETURN_FAIL}, [&](Services& services) {
        if (services.knobs.update_result) {
            return desk::camera::answer_of_lab("update-result", "the rename", *services.knobs.update_result);
        }
        return tell_refusal(services, "updating a preset", services.store.update(custom_id, server_id, title));
    });
}

int __ui_preset_delete_form_phone(int* flags) {
    return answer("__ui_preset_delete_form_phone", int{SM_RETURN_FAIL}, [&](Services& services) {
        services.calls.linked = {services.store.linked(0), services.store.linked(1)};
        services.calls.deletion = int{SM_RETURN_FAIL}; // unless the store comes to an answer
        services.calls.deletion = services.store.remove(std::span<const int>(flags, SM_DELETE_FLAGS));
        return tell_refusal(services, "deleting presets", *services.calls.deletion, desk::camera::Told::nothing);
    });
}

int bt_send_msgs(bt_msg_info* message) {
    return answer("bt_send_msgs", int{SM_RETURN_FAIL}, [&](Services& services) {
        if (services.sends == nullptr) {
            throw std::logic_error("there is no link");
        }
        const std::span<const uint8_t> reply = desk::camera::reply_of(*message);
        services.sends->queue(reply);
        services.calls.reply = reply;
        return int{SM_RETURN_TRUE};
    });
}

int User_Spec_Get_Value(int key) {
    return answer("User_Spec_Get_Value", 0, [&](Services& services) {
        return key == SM_SPEC_KEY_ISO_STEP && services.knobs.full_iso_steps ? 1 : 0;
    });
}
}
