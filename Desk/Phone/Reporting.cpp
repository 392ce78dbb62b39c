#include "Reporting.h"

#include <fmt/format.h>

#include "ADE_ShotMentor_Records.h"
#include "Options.h"
#include "Output.h"
#include "Words/Results.h"

namespace desk::phone {

void mention(const Options& options, std::string_view line) {
    if (!options.quiet) {
        say(line);
    }
}

int report_result(int32_t result) {
    if (result != SM_RETURN_TRUE) {
        complain(
            fmt::format("the camera answered {}, {}: {}", result, name_of_result(result), meaning_of_result(result)));
    }
    return exit_code_of_result(result);
}

} // namespace desk::phone
