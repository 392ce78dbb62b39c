// Which preset of one conversation is which one of another: each camera gives identities and numbers of its own.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "Wire/Record.h"

namespace desk::capture {

class Identities {
  public:
    // A preset, as the one conversation has it and as the other has it.
    struct Known {
        int32_t number_before = 0; // its place in the list
        int32_t id_now = 0;
        int32_t number_now = 0;
        std::string title; // fit for a terminal; may be empty
    };

    void learn(int32_t id_before, Known known);
    // Null for one that no reply has told of.
    const Known* find(int32_t id_before) const;
    // The same number for one that is not known.
    int32_t now(int32_t id_before) const;

    // A request of the one conversation as the other has it: pictures, renamings and deletions name presets.
    Bytes translated(std::span<const uint8_t> request) const;

  private:
    void translate_word(std::span<uint8_t> request, size_t offset) const;
    void translate_pairs(std::span<uint8_t> pairs) const;

    std::map<int32_t, Known> known_;
    std::deque<int32_t> order_; // in which they were learned
};

} // namespace desk::capture
