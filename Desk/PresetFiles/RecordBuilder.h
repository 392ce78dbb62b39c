// What the forms of a preset file have in common for whoever reads them: a record that is filled from a tree, and the
// faults that are found on the way.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "JsonTree.h"
#include "Wire/Record.h"

namespace desk {

inline constexpr auto bytes_entry = "bytes"; // of a text that is no clean UTF-8
inline constexpr auto form_entry = "form";
inline constexpr auto schema_entry = "$schema";

// The faults of a file, told in the order of its lines.
class Faults {
  public:
    explicit Faults(std::string name) : name_(std::move(name)) {}

    void add(size_t line, const std::string& fault);
    bool any() const { return !lines_.empty(); }
    // Throws Failure (exit_usage).
    void throw_if_any() const;

  private:
    // More than a preset has entries, so that each of them can be missing.
    static constexpr size_t most_lines = 100;

    std::string name_;
    std::multimap<size_t, std::string> lines_;
    size_t untold_ = 0;
};

// What a fault says of a value that is of the wrong kind.
std::string described(const JsonNode& node);

// The entries of an object that have been seen.
class GivenEntries {
  public:
    // Whether it is the first of its name. Tells the fault when it is not.
    bool take(const JsonNode& entry, Faults& faults);
    bool contains(const std::string& name) const { return lines_.contains(name); }

  private:
    std::map<std::string, size_t> lines_;
};

class RecordBuilder {
  public:
    RecordBuilder(size_t size, Faults& faults) : record_(size), faults_(faults) {}

    const Bytes& record() const { return record_; }

    void put(size_t offset, int32_t value) { put_word(record_, offset, value); }
    // `what` names the value in a fault.
    void read_word(const JsonNode& node, const std::string& what, size_t offset);
    void read_words(const JsonNode& node, const std::string& what, size_t offset, size_t count);
    void read_text(const JsonNode& entry, const Field& field);
    // Tells what is wrong unless it is an array of so many.
    bool check_array(const JsonNode& node, const std::string& what, size_t count, const char* of);

  private:
    void read_string(const JsonNode& entry, const Field& field);
    void read_bytes(const JsonNode& entry, const Field& field);
    Bytes::iterator at(size_t offset) { return record_.begin() + static_cast<std::ptrdiff_t>(offset); }

    Bytes record_;
    Faults& faults_;
};

} // namespace desk
