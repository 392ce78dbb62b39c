// A progress bar on standard error, for a person who watches: it shows on a terminal only, and is gone when the work is
// done.
#pragma once

#include <cstddef>
#include <string>

namespace desk::phone {

// What is shown of some bytes, `all` of which are more than none, in at most so many columns: as much of label, bar,
// percent and bytes as there is room for. The label may be anybody's text.
std::string progress_line(const std::string& label, size_t done, size_t all, size_t room);

class Progress {
  public:
    Progress(std::string label, bool is_wanted);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    void show(size_t done, size_t all);
    void clear();

  private:
    std::string label_;
    bool wanted_;
    size_t shown_permille_;
    bool visible_ = false;
};

} // namespace desk::phone
