// Makes a picture smaller while its rows come in: each new pixel is the average of those that it covers.
#pragma once

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

#include "PictureSize.h"
#include "Wire/Record.h"

namespace desk::phone {

class Shrinker {
  public:
    // To `parts` of `whole` parts of its width and height, rounded up. A pixel has one byte, or three.
    Shrinker(PictureSize size, size_t components, unsigned parts, unsigned whole);

    // The next row from the top; each must come.
    void add(std::span<const uint8_t> row);

    PictureSize size() const { return new_size_; }
    // All rows of the smaller picture.
    Bytes take() { return std::move(bytes_); }

  private:
    void add_across(std::span<const uint8_t> row);
    void add_down(unsigned weight);
    void finish_row();
    uint32_t units_across(size_t x) const;

    PictureSize old_size_;
    PictureSize new_size_;
    size_t components_;
    // An old pixel is `parts_` units wide and high, a new one `whole_`; at the right and lower edge it may be cut.
    unsigned parts_;
    unsigned whole_;
    unsigned old_rows_ = 0;        // that have come
    unsigned units_down_ = 0;      // of the new row, that have come
    std::vector<uint32_t> across_; // sums of one old row for each new pixel, weighted with the units that it covers
    std::vector<uint32_t> sums_;   // and those of the new row
    Bytes bytes_;
};

} // namespace desk::phone
