#include "Shrinker.h"

#include <algorithm>

namespace desk::phone {
namespace {

unsigned shrunk(unsigned length, unsigned parts, unsigned whole) {
    return static_cast<unsigned>((size_t{length} * parts + whole - 1) / whole);
}

} // namespace

Shrinker::Shrinker(PictureSize size, size_t components, unsigned parts, unsigned whole)
    : old_size_(size), new_size_{shrunk(size.width, parts, whole), shrunk(size.height, parts, whole)},
      components_(components), parts_(parts), whole_(whole), across_(new_size_.width * components),
      sums_(new_size_.width * components) {
    bytes_.reserve(sums_.size() * new_size_.height);
}

void Shrinker::add(std::span<const uint8_t> row) {
    if (parts_ == whole_) {
        bytes_.insert(bytes_.end(), row.begin(), row.end());
        return;
    }
    add_across(row);
    const bool is_last = ++old_rows_ == old_size_.height;
    const unsigned first = std::min(parts_, whole_ - units_down_);
    add_down(first);
    if (units_down_ == whole_) {
        finish_row();
    }
    if (first < parts_) {
        add_down(parts_ - first);
    }
    if (is_last && units_down_ > 0) {
        finish_row();
    }
}

void Shrinker::add_across(std::span<const uint8_t> row) {
    std::ranges::fill(across_, 0U);
    uint32_t* sums = across_.data();
    unsigned units = 0; // of the new pixel, that have come
    for (size_t at = 0; at < row.size(); at += components_) {
        const unsigned first = std::min(parts_, whole_ - units);
        for (size_t k = 0; k < components_; ++k) {
            sums[k] += first * row[at + k];
        }
        units += first;
        if (units < whole_) {
            continue;
        }
        sums += components_;
        units = parts_ - first;
        for (size_t k = 0; k < components_ && units > 0; ++k) {
            sums[k] += units * row[at + k];
        }
    }
}

void Shrinker::add_down(unsigned weight) {
    for (size_t k = 0; k < sums_.size(); ++k) {
        sums_[k] += weight * across_[k];
    }
    units_down_ += weight;
}

void Shrinker::finish_row() {
    const size_t all_units = size_t{old_size_.width} * parts_;
    for (size_t k = 0; k < sums_.size(); ++k) {
        const size_t begin = k / components_ * whole_;
        const auto weight = static_cast<uint32_t>(std::min<size_t>(whole_, all_units - begin)) * units_down_;
        bytes_.push_back(static_cast<uint8_t>((sums_[k] + weight / 2) / weight));
    }
    std::ranges::fill(sums_, 0U);
    units_down_ = 0;
}

} // namespace desk::phone
