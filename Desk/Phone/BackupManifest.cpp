#include "BackupManifest.h"

#include <algorithm>
#include <fmt/format.h>
#include <glib.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "Common/Text.h"
#include "PresetFiles/JsonTree.h"
#include "Wire/Frames.h"

namespace desk::phone {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* format_name = "ShotMentor backup";
constexpr int32_t format_version = 1;
constexpr size_t longest_stem = 35; // with its ending a name has 40 characters
constexpr size_t longest_name = 100;
constexpr size_t digits_of_sum = 64;

struct FreeText {
    void operator()(gchar* text) const { g_free(text); }
};
using OwnedText = std::unique_ptr<gchar, FreeText>;

bool is_letter_or_digit(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// ---- Writing --------------------------------------------------------------------------------------------------------

Json json_of(const BackupFile& file) {
    return {{"file", file.name}, {"bytes", file.bytes}, {"sha256", file.sha256}};
}

Json json_of(const BackupEntry& entry) {
    return {{"number", entry.number},
            {"custom_id", entry.custom_id},
            {"title", entry.title},
            {"preset", json_of(entry.preset)},
            {"picture", entry.picture ? json_of(*entry.picture) : Json()}};
}

// ---- Reading --------------------------------------------------------------------------------------------------------

bool is_sum(const std::string& text) {
    return text.size() == digits_of_sum && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// What cannot lead out of the folder, and is no hidden file.
bool is_plain_name(const std::string& name) {
    return !name.empty() && name.size() <= longest_name && is_letter_or_digit(name.front()) &&
           std::ranges::all_of(name, [](char c) { return is_letter_or_digit(c) || c == '.' || c == '_' || c == '-'; });
}

class Reader {
  public:
    explicit Reader(std::string name) : name_(std::move(name)) {}

    BackupManifest manifest_of(const JsonNode& root) {
        require(root.kind == JsonNode::Kind::object, root, "it is no object");
        check_format(root);
        BackupManifest manifest;
        manifest.complete = is_true(root, "complete");
        manifest.model = entry(root, "model", JsonNode::Kind::text, "a text").text;
        const JsonNode& count = entry(root, "count", JsonNode::Kind::integer, "a number");
        const JsonNode& presets = entry(root, "presets", JsonNode::Kind::array, "an array");
        const auto size = static_cast<int64_t>(presets.children.size());
        require(count.number == size, count, fmt::format("\"count\" is {}, and {} presets follow", count.text, size));
        require(size <= SM_PRESET_LIMIT, presets,
                fmt::format("it has {} presets, and a camera holds {}", size, SM_PRESET_LIMIT));
        for (const JsonNode& preset : presets.children) {
            manifest.presets.push_back(preset_of(preset, manifest.complete));
        }
        const JsonNode& obsolete = entry(root, "obsolete", JsonNode::Kind::array, "an array");
        for (const JsonNode& file : obsolete.children) {
            require(file.kind == JsonNode::Kind::text, file, "\"obsolete\" has names of files alone");
            manifest.obsolete.push_back(checked_name(file));
        }
        return manifest;
    }

  private:
    Failure failure(const JsonNode& node, const std::string& fault) const {
        return {exit_usage,
                fmt::format("{}, line {}: {}; give the folder of a backup as it was written", name_, node.line, fault)};
    }

    void require(bool holds, const JsonNode& node, const std::string& fault) const {
        if (!holds) {
            throw failure(node, fault);
        }
    }

    const JsonNode& entry(const JsonNode& object, const char* key) const {
        const auto has_key = [key](const JsonNode& child) { return child.key == key; };
        const auto found = std::ranges::find_if(object.children, has_key);
        require(found != object.children.end(), object, fmt::format("\"{}\" is missing", key));
        require(std::ranges::count_if(object.children, has_key) == 1, *found,
                fmt::format("\"{}\" is given twice", key));
        return *found;
    }

    const JsonNode& entry(const JsonNode& object, const char* key, JsonNode::Kind kind, const char* what) const {
        const JsonNode& found = entry(object, key);
        require(found.kind == kind, found, fmt::format("\"{}\" is not {}", key, what));
        return found;
    }

    bool is_true(const JsonNode& object, const char* key) const {
        const JsonNode& found = entry(object, key, JsonNode::Kind::other, "true or false");
        require(found.text == "true" || found.text == "false", found, fmt::format("\"{}\" is not true or false", key));
        return found.text == "true";
    }

    void check_format(const JsonNode& root) const {
        const JsonNode& format = entry(root, "format", JsonNode::Kind::text, "a text");
        require(format.text == format_name, format, fmt::format("\"format\" is not \"{}\"", format_name));
        const JsonNode& version = entry(root, "version", JsonNode::Kind::integer, "a number");
        if (version.number != format_version) {
            throw Failure(exit_usage, fmt::format("{}, line {}: this backup has version {}, and this program reads "
                                                  "version {}; read it with the program that wrote it",
                                                  name_, version.line, version.text, format_version));
        }
    }

    std::string checked_name(const JsonNode& node) {
        require(is_plain_name(node.text) && node.text != manifest_name, node,
                fmt::format("{} is no name of a file in this folder", quoted_for_fault(node.text)));
        require(seen_.insert(node.text).second, node, fmt::format("{} is named twice", quoted_for_fault(node.text)));
        return node.text;
    }

    // A file that is still to come has no sum.
    BackupFile file_of(const JsonNode& object, bool must_be_there) {
        BackupFile file;
        file.name = checked_name(entry(object, "file", JsonNode::Kind::text, "a text"));
        const JsonNode& bytes = entry(object, "bytes", JsonNode::Kind::integer, "a number");
        require(bytes.number >= 0, bytes, "\"bytes\" is below 0");
        file.bytes = static_cast<size_t>(bytes.number);
        const JsonNode& sum = entry(object, "sha256", JsonNode::Kind::text, "a text");
        require(is_sum(sum.text) || (sum.text.empty() && !must_be_there), sum,
                fmt::format("\"sha256\" does not have {} digits of 0 to 9 and a to f", digits_of_sum));
        file.sha256 = sum.text;
        return file;
    }

    BackupEntry preset_of(const JsonNode& object, bool complete) {
        require(object.kind == JsonNode::Kind::object, object, "a preset is no object");
        BackupEntry preset;
        preset.number = entry(object, "number", JsonNode::Kind::integer, "a number").number;
        preset.custom_id = entry(object, "custom_id", JsonNode::Kind::integer, "a number").number;
        preset.title = entry(object, "title", JsonNode::Kind::text, "a text").text;
        preset.preset = file_of(entry(object, "preset", JsonNode::Kind::object, "an object"), complete);
        const JsonNode& picture = entry(object, "picture");
        if (picture.kind != JsonNode::Kind::other) {
            require(picture.kind == JsonNode::Kind::object, picture, "\"picture\" is neither an object nor null");
            preset.picture = file_of(picture, complete);
        } else {
            require(picture.text == "null", picture, "\"picture\" is neither an object nor null");
        }
        return preset;
    }

    std::string name_;
    std::set<std::string> seen_;
};

} // namespace

bool BackupFile::holds(std::span<const uint8_t> content) const {
    return content.size() == bytes && sha256_of(content) == sha256;
}

std::vector<std::string> BackupManifest::names() const {
    std::vector<std::string> names = obsolete;
    for (const BackupEntry& entry : presets) {
        names.push_back(entry.preset.name);
        if (entry.picture) {
            names.push_back(entry.picture->name);
        }
    }
    return names;
}

size_t BackupManifest::bytes() const {
    size_t sum = 0;
    for (const BackupEntry& entry : presets) {
        sum += entry.preset.bytes + (entry.picture ? entry.picture->bytes : 0);
    }
    return sum;
}

std::string sha256_of(std::span<const uint8_t> bytes) {
    const OwnedText sum(g_compute_checksum_for_data(G_CHECKSUM_SHA256, bytes.data(), bytes.size()));
    return sum.get();
}

std::string file_stem(size_t number, std::string_view title) {
    const OwnedText ascii(g_str_to_ascii(printable(title).c_str(), "C"));
    std::string stem = fmt::format("{:02}", number);
    bool is_word = false;
    for (const char* at = ascii.get(); *at != '\0'; ++at) {
        const bool belongs = is_letter_or_digit(*at);
        const std::string piece = belongs ? std::string(is_word ? "" : "-") + g_ascii_tolower(*at) : "";
        if (stem.size() + piece.size() > longest_stem) {
            break;
        }
        stem += piece;
        is_word = belongs;
    }
    constexpr size_t digits = 2;
    return stem.size() == digits ? stem + "-preset" : stem;
}

std::string text_of(const BackupManifest& manifest) {
    Json presets = Json::array();
    for (const BackupEntry& entry : manifest.presets) {
        presets.push_back(json_of(entry));
    }
    const Json document = {
        {"format", format_name},        {"version", format_version},        {"complete", manifest.complete},
        {"model", manifest.model},      {"count", manifest.presets.size()}, {"presets", presets},
        {"obsolete", manifest.obsolete}};
    constexpr int indentation = 2;
    return escaped_json(document.dump(indentation, ' ', false, Json::error_handler_t::replace)) + "\n";
}

BackupManifest manifest_from(std::string_view text, const std::string& name) {
    const auto parsed = parse_json(text);
    if (const auto* fault = std::get_if<JsonSyntaxFault>(&parsed)) {
        throw Failure(exit_usage, fmt::format("{}, line {}, column {}: {}; give the folder of a backup as it was "
                                              "written",
                                              name, fault->line, fault->column, fault->text));
    }
    return Reader(name).manifest_of(std::get<JsonNode>(parsed));
}

} // namespace desk::phone
