// Standard error, for all that writes there: this program, and the library, which copies its errors to it by itself. A
// phone causes most of these lines and its bytes stand in some, so that none may colour a terminal, be too many, or
// wait for a reader: what is left out is counted, and told in one line. What a sanitizer or the C library writes to the
// descriptor itself when the process breaks down does not pass here.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace desk::camera {

struct LogLine;
struct Said;

// While one exists, `stderr` leads to it. There is one at a time.
class StandardError {
  public:
    StandardError();
    // Tells what it can of what was left out.
    ~StandardError();
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

    // From now on each line is a JSON object, those of the library too.
    static void speak_json();

    // A line of this program. One that is too long is broken.
    static void tell(const Said& said);
    // A line of the library, in its colour where colours show.
    static void log(const LogLine& line);

    // From now on the library's lines are as many as they are: the user asked for them.
    static void lift_limit_of_library();

    // `handler` is called when something was left out that is to be told later, by `catch_up`. It must not write to
    // standard error itself.
    static void when_behind(std::function<void()> handler);
    // Tells what was left out. False when that has to be tried again.
    static bool catch_up();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace desk::camera
