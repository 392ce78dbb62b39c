// A progress bar on standard error, for a person who watches: it shows on a terminal only, and is gone when the work is
// done.
#pragma once

#include <cstddef>
#include <string>

namespace desk::phone {

// What is shown of some bytes, `all` of which are more than none, in at most so many columns: as much of label, bar,
// percent and bytes as there is room for. The label may be anybody's text.
std::string progress_line(const std::string& label, size_t done, size_t all, size_t room);

// What is shown of several things of which one is under way: "3 of 12" and its name, and a bar where there is room.
std::string step_line(size_t number, size_t all, const std::string& name, size_t room);

class Progress {
  public:
    Progress(std::string label, bool is_wanted);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    void show(size_t done, size_t all);
    // One of several things is under way: "3 of 12" and what it is called.
    void show_step(size_t number, size_t all, const std::string& name);
    void clear();

  private:
    std::string label_;
    bool wanted_;
    size_t shown_permille_;
    bool visible_ = false;
};

} // namespace desk::phone
