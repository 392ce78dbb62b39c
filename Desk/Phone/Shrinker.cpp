#include "Shrinker.h"

#include <algorithm>

namespace desk::phone {
namespace {

unsigned shrunk(unsigned length, unsigned parts, unsigned whole) {
    return static_cast<unsigned>((size_t{length} * parts + whole - 1) / whole);
}

// The loop that all pixels go through: their bytes are counted when it is compiled.
template<unsigned components>
void sum_across(std::span<const uint8_t> row, unsigned parts, unsigned whole, uint32_t* sums) {
    unsigned units = 0; // of the new pixel, that have come
    const uint8_t* const end = row.data() + row.size();
    for (const uint8_t* pixel = row.data(); pixel != end; pixel += components) {
        const unsigned first = std::min(parts, whole - units);
        for (unsigned k = 0; k < components; ++k) {
            sums[k] += first * pixel[k];
        }
        units += first;
        if (units < whole) {
            continue;
        }
        sums += components;
        units = parts - first;
        for (unsigned k = 0; k < components && units > 0; ++k) {
            sums[k] += units * pixel[k];
        }
    }
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
    if (components_ == 1) {
        sum_across<1>(row, parts_, whole_, across_.data());
    } else {
        sum_across<3>(row, parts_, whole_, across_.data());
    }
}

void Shrinker::add_down(unsigned weight) {
    std::transform(across_.begin(), across_.end(), sums_.begin(), sums_.begin(),
                   [weight](uint32_t across, uint32_t sum) { return sum + weight * across; });
    units_down_ += weight;
}

void Shrinker::finish_row() {
    const uint32_t* sum = sums_.data();
    for (size_t x = 0; x < new_size_.width; ++x) {
        const uint32_t weight = units_across(x) * units_down_;
        for (size_t k = 0; k < components_; ++k, ++sum) {
            bytes_.push_back(static_cast<uint8_t>((*sum + weight / 2) / weight));
        }
    }
    std::ranges::fill(sums_, 0U);
    units_down_ = 0;
}

// The last pixel of a row may be cut.
uint32_t Shrinker::units_across(size_t x) const {
    const size_t all = size_t{old_size_.width} * parts_;
    return static_cast<uint32_t>(std::min<size_t>(whole_, all - x * whole_));
}

} // namespace desk::phone
