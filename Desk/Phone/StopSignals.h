// SIGINT and SIGTERM as something to read. While it lives they end nothing by themselves; what our caller has us ignore
// stays ignored.
#pragma once

#include "Common/Descriptor.h"

namespace desk::phone {

class StopSignals {
  public:
    StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    ~StopSignals();

    int descriptor() const { return descriptor_.get(); }
    bool have_come() const;

  private:
    Descriptor descriptor_;
};

} // namespace desk::phone
