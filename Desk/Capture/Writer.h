// Writes what crosses the links of a phone or a camera into a btsnoop file, as its Bluetooth adapter would show it,
// whatever the links are made of. A link that keeps message boundaries becomes a channel of L2CAP, on Low Energy where
// it is one, a stream of bytes one of RFCOMM.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Hci.h"
#include "Links/Endpoint.h"
#include "OutputFile.h"
#include "Reader.h"

namespace desk::capture {

// One link, from its begin to its end.
class LinkWriter {
  public:
    enum class End { phone_left, camera_closed, link_lost };

    // Writes how the link comes about. `own` is the side whose adapter it is, `number` is 1 for its first link.
    LinkWriter(std::shared_ptr<OutputFile> file, Side own, uint64_t number, const Endpoint& endpoint);
    // Writes its end, which is that of our own side unless `ends` was called.
    ~LinkWriter();
    LinkWriter(const LinkWriter&) = delete;
    LinkWriter& operator=(const LinkWriter&) = delete;

    // A packet, or a piece of the stream, that our side has got from the link, or that the link has taken from it.
    void received(std::span<const uint8_t> bytes);
    void sent(std::span<const uint8_t> bytes);
    // Says how the link ends, as soon as that is known. The first that is said holds.
    void ends(End how);

  private:
    void open();
    void open_low_energy();
    void configure(Side sender, uint8_t identifier);
    void hang_up(Side sender);
    void carry(Side sender, std::span<const uint8_t> bytes);
    void event(uint8_t code, std::span<const uint8_t> parameters);
    void l2cap(Side sender, uint16_t channel, const OutputFile::Pieces& payload);
    void signal(Side sender, Signal code, uint8_t identifier, std::initializer_list<uint16_t> words);
    void rfcomm_exchange(Side sender, uint8_t command, uint8_t dlci);
    void rfcomm(Side sender, uint8_t address, uint8_t control, std::span<const uint8_t> data);

    std::shared_ptr<OutputFile> file_;
    Side own_;
    uint16_t handle_;
    uint16_t psm_;
    uint8_t dlci_; // 0 on L2CAP
    bool is_low_energy_;
    std::array<uint8_t, 6> peer_;
    std::optional<End> end_;
};

class Writer {
  public:
    // As OutputFile.
    Writer(const std::string& path, Side own, OutputFile::Tell tell);

    // Begins the file, which the first link would do otherwise.
    void begin();
    // A link that has come about just now.
    std::unique_ptr<LinkWriter> connect(const Endpoint& endpoint);

  private:
    std::shared_ptr<OutputFile> file_;
    Side own_;
    uint64_t links_ = 0;
};

} // namespace desk::capture
