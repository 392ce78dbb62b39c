// What differs between two conversations, message by message, in words.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Identities.h"

namespace desk::capture {

// Identities are learned from replies: that of a stored preset from the reply to storing, that of any other from lists,
// in which presets stand at the same place. They, and numbers, are compared as those of the same preset. Nothing else
// is made equal.
class Comparison {
  public:
    using Lines = std::vector<std::string>;

    // A request as it is to be sent now.
    Bytes translated(std::span<const uint8_t> request) const { return identities_.translated(request); }

    // Each takes two messages, and says what is not as it was: "preset 2 \"Dusk\": iso was 400, is 800".
    Lines of_requests(std::span<const uint8_t> before, std::span<const uint8_t> now) const;
    Lines of_replies(std::span<const uint8_t> before, std::span<const uint8_t> now);

  private:
    void compare_lists(const std::vector<sm_tag_custom_info>& before, const std::vector<sm_tag_custom_info>& now,
                       Lines& lines);
    std::vector<size_t> partners(const std::vector<sm_tag_custom_info>& before,
                                 const std::vector<sm_tag_custom_info>& now) const;
    void compare_presets(const sm_tag_custom_info& before, size_t place_before, const sm_tag_custom_info& now,
                         size_t place_now, Lines& lines);
    void compare_list_replies(std::span<const uint8_t> before, std::span<const uint8_t> now, Lines& lines);
    void compare_pictures(std::span<const uint8_t> before, std::span<const uint8_t> now, Lines& lines);
    void compare_storings(std::span<const uint8_t> before, std::span<const uint8_t> now, Lines& lines);
    static void compare_updates(std::span<const uint8_t> before, std::span<const uint8_t> now, Lines& lines);
    void compare_deletions(std::span<const uint8_t> before, std::span<const uint8_t> now, Lines& lines);

    Identities identities_;
};

} // namespace desk::capture
