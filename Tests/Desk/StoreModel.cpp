#include "StoreModel.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;
using desk::camera::PresetStore;

namespace {

std::string bytes_of(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return stream ? std::string(std::istreambuf_iterator<char>(stream), {}) : "(missing)";
}

int save(PresetStore& store, const std::string& title, int& custom_id) {
    tag_custom_info preset{};
    title.copy(preset.title, SM_TITLE_SIZE);
    const std::string picture = picture_of(title);
    const int answer = store.save(preset, picture.data(), static_cast<int>(picture.size()));
    custom_id = preset.custom_id;
    return answer;
}

std::set<std::string> names_in(const fs::path& folder) {
    std::set<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

std::set<std::string> names_of_pictures(const Contents& contents) {
    std::set<std::string> names;
    for (const Preset& preset : contents.presets) {
        names.insert(std::to_string(preset.custom_id) + ".jpg");
    }
    return names;
}

// What is wrong with a store that has just been opened, whatever it holds.
std::string trouble_with(const PresetStore& store, const Contents& contents, const fs::path& folder) {
    int number = 0;
    for (const tag_custom_info& preset : store.presets()) {
        if (preset.preset_num != number++) {
            return "the numbers have gaps";
        }
    }
    if (names_in(folder / "pictures") != names_of_pictures(contents)) {
        return "the folder holds other pictures than those of the presets";
    }
    return "";
}

// Saves one preset more, and looks for it in the store that is opened again.
std::string trouble_with_saving(PresetStore&& opened, Contents contents, const fs::path& folder, int& custom_id) {
    const Change change = saving("one more");
    {
        PresetStore store = std::move(opened);
        const int answer = change.make(store, custom_id);
        if (answer != SM_RETURN_TRUE) {
            return "a further save answers " + std::to_string(answer) + ": " + store.last_error();
        }
    }
    change.expect(contents, custom_id);
    const Contents found = contents_of(PresetStore::open(folder, false), folder);
    return found == contents ? "" : "after a further save: " + to_string(found);
}

} // namespace

std::string to_string(const Contents& contents) {
    std::ostringstream text;
    for (const Preset& preset : contents.presets) {
        const bool whole = preset.picture == picture_of(preset.title) ||
                           preset.title.starts_with("renamed"); // its picture belongs to its first title
        text << preset.custom_id << ":" << preset.title << "/" << preset.server_id
             << (whole ? "" : " (another picture of " + std::to_string(preset.picture.size()) + " bytes)") << " ";
    }
    text << "linked " << contents.linked[0] << " " << contents.linked[1];
    return text.str();
}

std::string picture_of(const std::string& title) {
    constexpr size_t size = 1700; // three sectors and a piece
    std::string picture;
    while (picture.size() < size) {
        picture += title + std::to_string(picture.size());
    }
    return picture.substr(0, size);
}

Change saving(const std::string& title) {
    return {"saving " + title, [=](PresetStore& store, int& custom_id) { return save(store, title, custom_id); },
            [=](Contents& contents, int custom_id) {
                contents.presets.push_back({title, custom_id, 0, picture_of(title)});
            }};
}

Change saving_a_picture_of_negative_length() {
    return {"saving nothing",
            [](PresetStore& store, int&) {
                tag_custom_info preset{};
                return store.save(preset, "x", -1);
            },
            [](Contents&, int) {}, SM_RETURN_JPG_ERR};
}

Change updating(int number, int server_id, const std::string& title) {
    return {"updating " + std::to_string(number),
            [=](PresetStore& store, int&) {
                return store.update(store.presets().at(static_cast<size_t>(number)).custom_id, server_id, title);
            },
            [=](Contents& contents, int) {
                Preset& preset = contents.presets.at(static_cast<size_t>(number));
                preset.title = title;
                preset.server_id = server_id;
            }};
}

Change updating_nothing() {
    return {"updating nothing", [](PresetStore& store, int&) { return store.update(999, 1, "x"); },
            [](Contents&, int) {}, SM_RETURN_LOCALN_ERR};
}

Change deleting(const std::set<int>& numbers) {
    std::string name = "deleting";
    std::vector<int> flags(SM_DELETE_FLAGS);
    for (const int number : numbers) {
        flags[static_cast<size_t>(number)] = 1;
        name += " " + std::to_string(number);
    }
    return {name, [=](PresetStore& store, int&) { return store.remove(flags); },
            [=](Contents& contents, int) {
                std::vector<Preset> left;
                std::map<int, int> renumbered;
                for (int number = 0; number < static_cast<int>(contents.presets.size()); ++number) {
                    if (!numbers.contains(number)) {
                        renumbered[number] = static_cast<int>(left.size());
                        left.push_back(contents.presets[static_cast<size_t>(number)]);
                    }
                }
                contents.presets = left;
                for (int& linked : contents.linked) {
                    linked = renumbered.contains(linked) ? renumbered[linked] : -1;
                }
            }};
}

Change linking(int custom_mode, int number) {
    return {"linking " + std::to_string(number),
            [=](PresetStore& store, int&) { return store.link(custom_mode, number); },
            [=](Contents& contents, int) { contents.linked[static_cast<size_t>(custom_mode)] = number; }};
}

Change unlinking(int custom_mode) {
    return {"unlinking", [=](PresetStore& store, int&) { return store.unlink(custom_mode); },
            [=](Contents& contents, int) { contents.linked[static_cast<size_t>(custom_mode)] = -1; }};
}

Contents contents_of(const PresetStore& store, const fs::path& folder) {
    Contents contents;
    for (const tag_custom_info& preset : store.presets()) {
        const std::string title(preset.title, strnlen(preset.title, SM_TITLE_SIZE));
        contents.presets.push_back(
            {title, preset.custom_id, preset.server_id, bytes_of(folder / preset.screennail_path)});
    }
    contents.linked = {store.linked(0), store.linked(1)};
    return contents;
}

Finding find(const fs::path& folder) {
    Finding finding;
    try {
        std::optional<PresetStore> store;
        try {
            store = PresetStore::open(folder, false);
        } catch (const desk::Failure& failure) {
            if (failure.code() != desk::exit_missing) {
                throw;
            }
            finding.is_missing = true;
            store = PresetStore::open(folder, true);
        }
        const Contents contents = contents_of(*store, folder);
        if (finding.is_missing) {
            finding.trouble = contents == Contents{} ? "" : "a new store is not empty";
        } else {
            finding.contents = contents;
        }
        if (finding.trouble.empty()) {
            finding.trouble = trouble_with(*store, contents, folder);
        }
        if (finding.trouble.empty()) {
            finding.trouble = trouble_with_saving(std::move(*store), contents, folder, finding.next_custom_id);
        }
    } catch (const std::exception& failure) {
        finding.trouble = failure.what();
    }
    return finding;
}
