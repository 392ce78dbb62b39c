// Where the schema of preset files lies on this machine.
#pragma once

#include <string>

namespace desk::phone {

// As a URL for editors; empty where it is not installed with this program.
std::string schema_url();

} // namespace desk::phone
