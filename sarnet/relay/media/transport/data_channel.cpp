#include "relay/media/transport/data_channel.h"

#include <arpa/inet.h>
#include <usrsctp.h>

#include <cstring>
#include <utility>
#include <vector>

#include "base/log.h"
#include "relay/media/sdp/negotiation.h"

namespace sarnet::relay {
namespace {

// What a message is (RFC 8831, section 8).
constexpr std::uint32_t kControl = 50;
constexpr std::uint32_t kText = 51;
constexpr std::uint32_t kBytes = 53;
constexpr std::uint32_t kEmptyText = 56;
constexpr std::uint32_t kEmptyBytes = 57;
// The messages of RFC 8832.
constexpr char kOpen = 0x03;
constexpr char kAcknowledge = 0x02;

constexpr std::uint16_t kStreams = 64;
// A packet and what DTLS adds fit into what DtlsLink sends.
constexpr std::uint32_t kPacket = 1150;
constexpr int kBuffer = 2 * 1024 * 1024;
// Text is soon there again after a break, milliseconds; who gives up is ICE.
constexpr std::uint32_t kFirstRetry = 500;
constexpr std::uint32_t kLeastRetry = 200;
constexpr std::uint32_t kLastRetry = 1000;
constexpr std::uint16_t kRetries = 120;

template <class Value>
bool set(struct socket* socket, int level, int option, const Value& value) {
  return usrsctp_setsockopt(socket, level, option, &value, sizeof(value)) == 0;
}

sockaddr_conn address_of(void* address, int port) {
  sockaddr_conn name{};
  name.sconn_family = AF_CONN;
  name.sconn_port = htons(static_cast<std::uint16_t>(port));
  name.sconn_addr = address;
  return name;
}

}  // namespace

// While one is there, packets gather; when it goes, they leave.
class DataChannel::Attention {
 public:
  explicit Attention(DataChannel& channel) : channel_(channel) { channel_.outbox_->attend(true); }
  ~Attention() {
    channel_.outbox_->attend(false);
    channel_.flush();
  }
  Attention(const Attention&) = delete;
  Attention& operator=(const Attention&) = delete;

 private:
  DataChannel& channel_;
};

DataChannel::DataChannel(std::shared_ptr<MainLoop> loop, Settings settings,
                         DataChannelObserver& observer)
    : loop_(std::move(loop)), settings_(std::move(settings)), observer_(observer) {}

DataChannel::~DataChannel() { close(); }

bool DataChannel::start() {
  outbox_ = std::make_shared<SctpOutbox>(loop_, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || self->socket_ == nullptr) return;
    const Attention attention(*self);
    self->read();
  });
  address_ = sctp_stack::register_outbox(outbox_);
  socket_ = usrsctp_socket(AF_CONN, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
  if (socket_ == nullptr || !configure()) {
    close();
    return false;
  }
  ticker_ = sctp_stack::ticker(loop_);
  const Attention attention(*this);
  sockaddr_conn own = address_of(address_, sdp::kSctpPort);
  sockaddr_conn remote = address_of(address_, settings_.remote_port);
  if (usrsctp_bind(socket_, reinterpret_cast<sockaddr*>(&own), sizeof(own)) != 0 ||
      (usrsctp_connect(socket_, reinterpret_cast<sockaddr*>(&remote), sizeof(remote)) != 0 &&
       errno != EINPROGRESS)) {
    close();
    return false;
  }
  // The stack is one for the process. Set up by another library of the program, it tells that one
  // what to send.
  if (outbox_->empty()) {
    SARNET_LOG(kWarn, "relay: the SCTP stack of this process belongs to another library");
    close();
    return false;
  }
  return true;
}

bool DataChannel::configure() {
  linger at_once{};
  at_once.l_onoff = 1;
  sctp_event changes{};
  changes.se_assoc_id = SCTP_ALL_ASSOC;
  changes.se_type = SCTP_ASSOC_CHANGE;
  changes.se_on = 1;
  sctp_initmsg streams{};
  streams.sinit_num_ostreams = kStreams;
  streams.sinit_max_instreams = kStreams;
  streams.sinit_max_attempts = kRetries;
  streams.sinit_max_init_timeo = kLastRetry;
  sctp_paddrparams path{};
  path.spp_flags = SPP_PMTUD_DISABLE;
  path.spp_pathmtu = kPacket;
  path.spp_pathmaxrxt = kRetries;
  sctp_rtoinfo pace{};
  pace.srto_initial = kFirstRetry;
  pace.srto_min = kLeastRetry;
  pace.srto_max = kLastRetry;
  sctp_assocparams patience{};
  patience.sasoc_asocmaxrxt = kRetries;
  const int on = 1;
  return usrsctp_set_non_blocking(socket_, 1) == 0 &&
         set(socket_, SOL_SOCKET, SO_LINGER, at_once) &&
         set(socket_, SOL_SOCKET, SO_SNDBUF, kBuffer) &&
         set(socket_, IPPROTO_SCTP, SCTP_NODELAY, on) &&
         set(socket_, IPPROTO_SCTP, SCTP_RECVRCVINFO, on) &&
         set(socket_, IPPROTO_SCTP, SCTP_EVENT, changes) &&
         set(socket_, IPPROTO_SCTP, SCTP_INITMSG, streams) &&
         set(socket_, IPPROTO_SCTP, SCTP_RTOINFO, pace) &&
         set(socket_, IPPROTO_SCTP, SCTP_ASSOCINFO, patience) &&
         set(socket_, IPPROTO_SCTP, SCTP_PEER_ADDR_PARAMS, path);
}

void DataChannel::close() {
  open_stream_.reset();
  ticker_.reset();
  if (struct socket* socket = std::exchange(socket_, nullptr)) {
    outbox_->attend(true);
    usrsctp_close(socket);
    flush();  // the farewell
  }
  closed_ = true;
  if (address_ != nullptr) sctp_stack::withdraw_outbox(std::exchange(address_, nullptr));
}

void DataChannel::receive(std::span<const std::uint8_t> packet) {
  if (socket_ == nullptr) return;
  const Attention attention(*this);
  usrsctp_conninput(address_, packet.data(), packet.size(), 0);
  read();
}

void DataChannel::flush() {
  // The stack may speak of us still, from another loop, when the observer has gone.
  if (closed_) return;
  for (const auto& packet : outbox_->take()) observer_.send_sctp(packet);
}

void DataChannel::read() {
  while (socket_ != nullptr) {
    sctp_rcvinfo info{};
    socklen_t info_size = sizeof(info);
    unsigned kind = 0;
    int flags = 0;
    sockaddr_conn from{};
    socklen_t from_size = sizeof(from);
    const ssize_t size =
        usrsctp_recvv(socket_, part_.data(), part_.size(), reinterpret_cast<sockaddr*>(&from),
                      &from_size, &info, &info_size, &kind, &flags);
    if (size <= 0) return;
    const std::span<const std::uint8_t> part =
        std::span(part_).first(static_cast<std::size_t>(size));
    if ((flags & MSG_NOTIFICATION) != 0) {
      take_notification(part);
      continue;
    }
    message_.stream = info.rcv_sid;
    message_.protocol = ntohl(info.rcv_ppid);
    message_.too_long = message_.too_long || message_.text.size() + part.size() > sdp::kMaxText;
    if (!message_.too_long) {
      message_.text.append(reinterpret_cast<const char*>(part.data()), part.size());
    }
    if ((flags & MSG_EOR) != 0) take_message(std::exchange(message_, {}));
  }
}

void DataChannel::take_notification(std::span<const std::uint8_t> bytes) {
  sctp_assoc_change change{};
  if (bytes.size() < sizeof(change)) return;
  std::memcpy(&change, bytes.data(), sizeof(change));
  if (change.sac_type != SCTP_ASSOC_CHANGE) return;
  if (change.sac_state == SCTP_COMM_UP) {
    open_own();
  } else if (change.sac_state != SCTP_RESTART) {
    open_stream_.reset();
    SARNET_LOG(kInfo, "relay: the data channel is closed");
  }
}

void DataChannel::open_own() {
  if (settings_.label.empty()) return;
  // Reliable and in order, without a protocol of its own.
  std::string request{kOpen, 0, 0, 0, 0, 0, 0, 0};
  request += static_cast<char>(settings_.label.size() >> 8);
  request += static_cast<char>(settings_.label.size() & 0xFF);
  request += {0, 0};
  request += settings_.label;
  send(settings_.even ? 0 : 1, kControl, request);
}

void DataChannel::take_message(const Message& message) {
  switch (message.protocol) {
    case kControl:
      if (!message.too_long) take_control(message.stream, message.text);
      return;
    case kText:
    case kBytes:
      if (message.too_long) {
        SARNET_LOG(kWarn, "relay: a text is left out, it is longer than a megabyte");
      } else {
        observer_.on_channel_text(message.text);
      }
      return;
    case kEmptyText:
    case kEmptyBytes:
      observer_.on_channel_text({});
      return;
    default:
      return;
  }
}

void DataChannel::take_control(std::uint16_t stream, std::string_view bytes) {
  if (bytes.empty()) return;
  const std::uint16_t own = settings_.even ? 0 : 1;
  if (bytes.front() == kOpen) {
    send(stream, kControl, std::string(1, kAcknowledge));
    // One of our own is better: some servers pass on nothing else.
    if (!open_stream_ && settings_.label.empty()) open_stream_ = stream;
  } else if (bytes.front() == kAcknowledge && stream == own && !settings_.label.empty()) {
    open_stream_ = stream;
  }
}

bool DataChannel::send_text(std::string_view text) {
  if (!open_stream_ || socket_ == nullptr || text.size() > settings_.max_text ||
      text.size() > sdp::kMaxText) {
    return false;
  }
  const Attention attention(*this);
  // SCTP has no empty messages.
  return text.empty() ? send(*open_stream_, kEmptyText, std::string_view("\0", 1))
                      : send(*open_stream_, kText, text);
}

bool DataChannel::send(std::uint16_t stream, std::uint32_t protocol, std::string_view bytes) {
  sctp_sndinfo info{};
  info.snd_sid = stream;
  info.snd_ppid = htonl(protocol);
  return usrsctp_sendv(socket_, bytes.data(), bytes.size(), nullptr, 0, &info, sizeof(info),
                       SCTP_SENDV_SNDINFO, 0) >= 0;
}

}  // namespace sarnet::relay
