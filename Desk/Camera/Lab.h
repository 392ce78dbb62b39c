// The lab: turns the knobs by commands, one line each, of the control socket and of scripts.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "CommandLine/Manual.h"
#include "Knobs.h"

namespace desk::camera {

class Lab {
  public:
    // The knobs as the command line has set them.
    explicit Lab(const Knobs& at_start) : knobs_(at_start) {}

    Knobs& knobs() { return knobs_; }
    // Who tells of the phone that is there.
    void when_asked_for_phone(std::function<std::string()> teller) { phone_ = std::move(teller); }
    // Who takes the answer to a phone that wants to pair; it may throw Failure (exit_usage).
    void when_answered_to_pair(std::function<std::string(bool accepts)> taker) { pairing_ = std::move(taker); }

    // Runs a command such as "drop-next 2", for `who`, and tells of it unless it only asks. Returns the answer to
    // "status", "phone" and "pair", nothing otherwise. Throws Failure (exit_usage) for a line that is no command;
    // nothing has changed then.
    std::string run(const std::string& line, const std::string& who);

  private:
    std::string answer(const std::string& question) const;
    std::string answer_pairing(bool accepts) const;

    Knobs knobs_;
    std::function<std::string()> phone_;
    std::function<std::string(bool)> pairing_;
};

// Throws what `run` would, but for what the program that runs lacks. Changes nothing.
void check_lab_command(const std::string& line);
// Whether this command needs the allocator of shotmentor-camera-lab.
bool refuses_allocations(const std::string& line);

// All commands with their values, and what they do.
std::vector<command_line::Row> lab_commands();

} // namespace desk::camera
