#include "Nearest.h"

#include <algorithm>

namespace desk::command_line {
namespace {

using Row = std::vector<size_t>;

bool has_changed_places(const std::string& a, const std::string& b, size_t i, size_t j) {
    return i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
}

// The optimal string alignment distance. A row holds the distances of the first i characters of `a` from each start of
// `b`.
size_t distance(const std::string& a, const std::string& b) {
    Row before_last(b.size() + 1);
    Row last(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        last[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        Row row(b.size() + 1, i);
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t another = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, another});
            if (has_changed_places(a, b, i, j)) {
                row[j] = std::min(row[j], before_last[j - 2] + 1);
            }
        }
        before_last = last;
        last = row;
    }
    return last.back();
}

} // namespace

std::optional<std::string> nearest(const std::string& word, const std::vector<std::string>& candidates) {
    std::optional<std::string> found;
    size_t limit = word.size() / 3 + 1;
    for (const std::string& candidate : candidates) {
        const size_t changes = distance(word, candidate);
        if (changes < limit) {
            limit = changes;
            found = candidate;
        }
    }
    return found;
}

} // namespace desk::command_line
