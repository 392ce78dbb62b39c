// What the tests of the camera's store share: presets and pictures to save, looks at the files, and a folder for each
// test.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "Camera/PresetStore.h"

namespace store_test {

namespace fs = std::filesystem;
using desk::camera::PresetStore;

// What an open store refuses is a result code; what `open` refuses is a Failure.
struct Refusal {
    int code = 0; // 0: nothing was refused
    std::string line;
};

inline Refusal refusal_of_opening(const fs::path& folder, bool create = false) {
    try {
        PresetStore::open(folder, create);
    } catch (const desk::Failure& failure) {
        return {failure.code(), failure.what()};
    }
    return {};
}

// A line that names the folder and has a second half, which says how to mend it.
inline void expect_clear(const Refusal& refusal, const fs::path& folder) {
    EXPECT_NE(refusal.line.find(folder.string()), std::string::npos) << refusal.line;
    EXPECT_EQ(refusal.line.find('\n'), std::string::npos) << refusal.line;
    EXPECT_NE(refusal.line.find("; "), std::string::npos) << refusal.line;
}

inline tag_custom_info titled(const std::string& title) {
    tag_custom_info preset{};
    title.copy(preset.title, SM_TITLE_SIZE);
    return preset;
}

// Bytes that belong to a title.
inline std::string picture_of(const std::string& title, size_t size = 20'000) {
    std::string picture;
    while (picture.size() < size) {
        picture += title + " ";
    }
    picture.resize(size);
    return picture;
}

inline int save(PresetStore& store, const std::string& title, size_t size = 20'000) {
    tag_custom_info preset = titled(title);
    const std::string picture = picture_of(title, size);
    return store.save(preset, picture.data(), static_cast<int>(picture.size()));
}

inline std::string content_of(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

inline void write(const fs::path& file, const std::string& content) {
    std::ofstream(file, std::ios::binary) << content;
}

// Every file under a folder with its content.
inline std::map<std::string, std::string> snapshot(const fs::path& folder) {
    std::map<std::string, std::string> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        files[entry.path().string()] = entry.is_regular_file() ? content_of(entry.path()) : "(folder)";
    }
    return files;
}

inline std::vector<std::string> files_in_pictures(const fs::path& folder) {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder / "pictures")) {
        names.push_back(entry.path().filename().string());
    }
    std::ranges::sort(names);
    return names;
}

inline std::vector<std::string> titles(const PresetStore& store) {
    std::vector<std::string> found;
    for (const tag_custom_info& preset : store.presets()) {
        found.emplace_back(preset.title);
    }
    return found;
}

inline std::vector<int> flags_for(std::initializer_list<int> numbers) {
    std::vector<int> flags(SM_DELETE_FLAGS);
    for (const int number : numbers) {
        flags[static_cast<size_t>(number)] = 1;
    }
    return flags;
}

// A second hand on the database.
class Intruder {
  public:
    explicit Intruder(const fs::path& folder) { sqlite3_open((folder / "presets.sqlite").c_str(), &handle_); }
    Intruder(const Intruder&) = delete;
    Intruder& operator=(const Intruder&) = delete;
    ~Intruder() { sqlite3_close(handle_); }
    void run(const std::string& statements) {
        EXPECT_EQ(sqlite3_exec(handle_, statements.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(handle_);
    }

  private:
    sqlite3* handle_ = nullptr;
};

// A folder of its own for each test.
class StoreTest : public testing::Test {
  protected:
    StoreTest() {
        std::string path = (fs::temp_directory_path() / "store-XXXXXX").string();
        parent = mkdtemp(path.data());
        folder = parent / "store";
    }
    ~StoreTest() override { fs::remove_all(parent); }

    PresetStore create(std::initializer_list<const char*> saved = {}) {
        PresetStore store = PresetStore::open(folder, true);
        for (const char* title : saved) {
            EXPECT_EQ(save(store, title), SM_RETURN_TRUE);
        }
        return store;
    }
    PresetStore reopen() { return PresetStore::open(folder, false); }

    fs::path parent;
    fs::path folder;
};

} // namespace store_test
