// The control socket: takes commands of the lab while the camera serves. A packet is a command, and is answered with a
// packet: "done", "done: " with what was asked for, or "refused: " with the reason.
#pragma once

#include <asio/io_context.hpp>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "Listener.h"
#include "TimedLinks.h"

namespace desk::camera {

class Lab;

class Control {
  public:
    // Listens, for the camera's owner alone. Throws Failure (exit_link).
    Control(asio::io_context& loop, const Endpoint& endpoint, Lab& lab);

    // Takes commands from now on.
    void open();

  private:
    void client_came(const std::shared_ptr<Link>& link);
    void listen_to(Link& client);
    void answer(Link& client, const std::string& line);
    std::string answer_to(const std::string& line);

    Lab& lab_;
    std::vector<uint8_t> buffer_;
    Listener listener_;
    TimedLinks clients_; // each for a while from its last command on
};

// Sends a command to a camera, and prints what it answers. Returns the exit code. Throws Failure (exit_link,
// exit_timeout, exit_protocol, and exit_usage for what the camera refuses).
int control_camera(const Endpoint& endpoint, const std::string& command);

} // namespace desk::camera
