// Whose the presets of a camera are: those that were there before the check, those that it has stored, and others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Wire/Record.h"

namespace desk::phone {

using Presets = std::vector<sm_tag_custom_info>;

// What every preset of a check is called, its own runs and those of others.
constexpr std::string_view check_title = "ShotMentor check ";

// The fields in which two records differ, by their names. Those of `ignored` do not count.
std::vector<std::string> differing_fields(const sm_tag_custom_info& one, const sm_tag_custom_info& other,
                                          const std::set<std::string>& ignored = {});

// Position, title and id of a preset, for a line of text.
std::string name_of(const sm_tag_custom_info& preset, size_t position);

// The same preset, whatever place of the list it stands at and whichever custom mode uses it.
bool is_same_preset(const sm_tag_custom_info& one, const sm_tag_custom_info& other);

class CheckPresets {
  public:
    CheckPresets();

    // What the camera held before anything was stored.
    void begin(const Presets& presets);
    bool has_begun() const { return foreign_.has_value(); }
    const Presets& foreign() const { return *foreign_; }
    // Positions of the presets of a check that was killed.
    std::vector<size_t> leftovers() const;

    // A title that no other preset has.
    std::string next_title();
    const std::string& title_begin() const { return title_begin_; }
    // The id that the camera gave to a preset of ours.
    void claim(int32_t custom_id);

    struct Sorted {
        std::vector<size_t> own;     // positions in the list
        std::vector<size_t> missing; // positions in `foreign`
        bool in_order = true;        // the foreign ones stand in the order that they stood in
    };
    Sorted sorted(const Presets& list) const;

    // What has happened to the foreign presets, empty when nothing has.
    std::string harm_in(const Presets& list) const;

  private:
    bool looks_own(const sm_tag_custom_info& preset) const;
    bool is_foreign_id(int32_t custom_id) const;

    std::string title_begin_;
    int titles_ = 0;
    std::optional<Presets> foreign_;
    std::set<int32_t> claimed_;
};

// The presets of `before` less those at some positions that `after` no longer holds, by their names.
std::vector<std::string> lost_presets(const Presets& before, const std::vector<size_t>& removed, const Presets& after);

} // namespace desk::phone
