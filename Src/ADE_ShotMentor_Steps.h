// Looking values up in step tables. Internal to the library.
#ifndef ADE_SHOTMENTOR_STEPS_H
#define ADE_SHOTMENTOR_STEPS_H

#include <stddef.h>
#include <stdint.h>

// Returns the position from 0 to count - 1 that is nearest to a number.
constexpr int clamped(int position, int count) {
    if (position < 0) {
        return 0;
    }
    return position < count ? position : count - 1;
}

// Returns the first position from `first` to `last` that holds `value`, or -1. The range is cut to the table.
template<size_t count>
constexpr int find_in_range(const int32_t (&table)[count], int value, int first, int last) {
    constexpr int end = static_cast<int>(count);
    for (int position = first < 0 ? 0 : first; position <= last && position < end; ++position) {
        if (table[position] == value) {
            return position;
        }
    }
    return -1;
}

// Returns the first position that holds `value`, or -1.
template<size_t count>
constexpr int find(const int32_t (&table)[count], int value) {
    return find_in_range(table, value, 0, static_cast<int>(count) - 1);
}

// Returns the position of the value nearest to `value` among the positions that `usable` admits, the lower one of two
// equally near. The table rises, and position 0 is admitted.
template<size_t count, class Usable>
constexpr int find_nearest(const int32_t (&table)[count], int value, Usable usable) {
    int nearest = 0;
    int64_t nearest_distance = INT64_MAX;
    for (int position = 0; position < static_cast<int>(count); ++position) {
        const int64_t difference = int64_t{value} - table[position];
        const int64_t distance = difference < 0 ? -difference : difference;
        if (distance < nearest_distance && usable(position)) {
            nearest = position;
            nearest_distance = distance;
        }
    }
    return nearest;
}

#endif
