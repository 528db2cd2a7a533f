#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "relay/media/transport/sctp_stack.h"

struct socket;

namespace sarnet::relay {

// Told by a DataChannel on the loop's thread, from inside its calls and in turns of their own.
class DataChannelObserver {
 public:
  virtual ~DataChannelObserver() = default;
  // To be carried to the other side as it is.
  virtual void send_sctp(std::span<const std::uint8_t> packet) = 0;
  // A whole message, whatever channel it came through, valid during the call.
  virtual void on_channel_text(std::string_view text) = 0;
};

// The data channels of one connection: an SCTP association (RFC 8831) that takes whatever channels
// the other side opens (RFC 8832) and opens one of its own, reliable and in order. Texts up to
// sdp::kMaxText. The loop's thread alone; destroy it on the loop's thread, not from inside its
// observer.
class DataChannel : public std::enable_shared_from_this<DataChannel> {
 public:
  struct Settings {
    int remote_port = 5000;
    bool even = false;             // streams of even numbers are ours: we began the DTLS handshake
    std::string label;             // of the channel of our own; empty: none
    std::size_t max_text = 65536;  // the longest that the other side takes
  };

  DataChannel(std::shared_ptr<MainLoop> loop, Settings settings, DataChannelObserver& observer);
  ~DataChannel();
  DataChannel(const DataChannel&) = delete;
  DataChannel& operator=(const DataChannel&) = delete;

  // Begins the association. False when the stack refuses.
  bool start();
  void receive(std::span<const std::uint8_t> packet);
  // Lost, and false, while no channel is open, when it is too long or too much waits already.
  bool send_text(std::string_view text);
  // The observer is left alone from now on. May be called from inside it.
  void close();

 private:
  class Attention;  // calls of the stack, and what follows from them
  struct Message {
    std::uint16_t stream = 0;
    std::uint32_t protocol = 0;
    std::string text;
    bool too_long = false;
  };

  bool configure();
  void flush();
  void read();
  void take_notification(std::span<const std::uint8_t> bytes);
  void take_message(const Message& message);
  void take_control(std::uint16_t stream, std::string_view bytes);
  void open_own();
  bool send(std::uint16_t stream, std::uint32_t protocol, std::string_view bytes);

  const std::shared_ptr<MainLoop> loop_;
  const Settings settings_;
  DataChannelObserver& observer_;
  std::shared_ptr<SctpOutbox> outbox_;
  std::shared_ptr<sctp_stack::Ticker> ticker_;
  void* address_ = nullptr;
  struct socket* socket_ = nullptr;
  bool closed_ = false;
  std::optional<std::uint16_t> open_stream_;
  Message message_;  // as much as has come of it
  std::array<std::uint8_t, 8192> part_;
};

}  // namespace sarnet::relay
