// shotmentor-phone: what the phone's application does with a camera, for a terminal and for scripts.
#include <clocale>
#include <csignal>
#include <exception>

#include "Commands.h"
#include "Common/Failure.h"
#include "Options.h"
#include "Output.h"

int main(int argc, char** argv) {
    desk::phone::occupy_standard_descriptors();
    std::setlocale(LC_CTYPE, "");  // says whether the terminal's encoding has more than ASCII
    std::signal(SIGPIPE, SIG_IGN); // a link or a reader that has gone is an error that we handle,
    std::signal(SIGXFSZ, SIG_IGN); // and so is a file that may not grow
    try {
        const auto options = desk::phone::options_of(argc, argv);
        return options ? desk::phone::run(*options) : desk::exit_done;
    } catch (const desk::phone::OutputClosed&) {
        return desk::exit_machine;
    } catch (const desk::Failure& failure) {
        desk::phone::complain(failure.what());
        return failure.code();
    } catch (const std::exception& error) {
        desk::phone::complain(error.what());
        return desk::exit_machine;
    }
}
