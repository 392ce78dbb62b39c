// What of a capture can be played: the conversations of one phone after another.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <string>

#include "Common/Failure.h"
#include "Exchanges.h"

namespace desk::capture {

class Playable {
  public:
    using Tell = std::function<void(const std::string& line)>;

    // `name` is the file's in failures. `tell` gets what is passed over, and why.
    Playable(const std::string& path, std::string name, std::optional<uint16_t> psm, Tell tell);

    // Nothing at the end. Throws Failure (exit_usage) for phones that talk at the same time.
    std::optional<Exchange> next();
    // At the end. Throws Failure (exit_missing) where there was nothing to play.
    void check_any() const;
    // Throws Failure (exit_cut_capture) where not all was there.
    void check_whole() const;

  private:
    bool is_busy(const Exchange& exchange);
    void check_order(const Exchange& exchange);
    void tell_remarks();

    std::string name_;
    Tell tell_;
    Exchanges exchanges_;
    std::optional<uint32_t> current_;
    std::set<uint32_t> busy_; // connections that the camera had no time for, while they are open
    bool was_busy_ = false;
    size_t faults_ = 0;
};

// For a capture that has nothing to tell, and for one that is not whole.
Failure nothing_in(const std::string& name);
Failure not_in_full(const std::string& name);

} // namespace desk::capture
