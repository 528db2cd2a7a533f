#include "relay/room/relay_stream.h"

#include <utility>

#include "base/log.h"
#include "base/printable_text.h"
#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
namespace {

// How long a connection that was interrupted may take to heal, and how often another way is sought.
// The server's own search, begun anew each time, would give up after half a minute.
constexpr std::chrono::seconds kInterruptionLimit{30};
constexpr std::chrono::seconds kSeekPeriod{3};

}  // namespace

void RelayStream::begin(std::uint64_t handle, std::function<void()> then) {
  handle_ = handle;
  limit_ = MainLoop::Timer(*access_.loop, kPeerLimit, [this] {
    fail({words_.timed_out,
          std::string("The media connection for ") + words_.purpose + " was not made in time"});
  });
  if (handle != 0) {
    then();
    return;
  }
  access_.client.attach(
      kRoomPlugin, [weak = weak_from_this(), &client = access_.client, then = std::move(then)](
                       const JanusReply& reply, std::uint64_t attached) {
        const auto self = weak.lock();
        if (!self || self->stopped_) {
          if (attached != 0) client.detach(attached);
        } else if (!reply.ok()) {
          const std::string step = std::string("preparing for ") + self->words_.purpose;
          self->fail(self->words_.refused(step, reply));
        } else {
          self->handle_ = attached;
          then();
        }
      });
}

void RelayStream::ask(const char* step, json body, std::function<void(const JanusReply&)> then,
                      const Expected& expected, const std::string& sdp_type,
                      const std::string& sdp) {
  access_.client.message(
      handle_, std::move(body), sdp_type, sdp,
      [weak = weak_from_this(), step, then = std::move(then),
       again = interrupted_](const JanusReply& reply) {
        const auto self = weak.lock();
        if (!self || self->stopped_) return;
        if (reply.ok()) {
          then(reply);
        } else if (again) {
          SARNET_LOG(kWarn, "Another way for media was not found: "
                                << self->words_.refused(step, reply).text);
        } else {
          self->fail(self->words_.refused(step, reply));
        }
      },
      expected);
}

void RelayStream::on_local_candidate(unsigned mline, const std::string& candidate) {
  access_.client.trickle(handle_, mline, candidate);
}

void RelayStream::on_peer_failed(const std::string& reason) {
  fail({words_.webrtc_error, std::string("The media connection for ") + words_.purpose +
                                 " failed: " + printable_text(reason)});
}

void RelayStream::on_peer_interrupted() {
  if (stopped_ || std::exchange(interrupted_, true)) return;
  SARNET_LOG(kWarn, "The media connection for " << words_.purpose << " is interrupted");
  if (!limit_) {
    limit_ = MainLoop::Timer(*access_.loop, kInterruptionLimit, [this] {
      fail({words_.webrtc_error, std::string("The media connection for ") + words_.purpose +
                                     " was lost: for half a minute nothing came through"});
    });
  }
  seek_way();
}

void RelayStream::seek_way() {
  retry_ = MainLoop::Timer(*access_.loop, kSeekPeriod, [this] { seek_way(); });
  // While the server cannot be asked, the old way may heal.
  if (access_.client.is_open()) restart();
}

void RelayStream::network_changed() {
  if (interrupted_) {
    seek_way();
  } else if (connected_ && !stopped_) {
    check_way();
  }
}

void RelayStream::resumed() {
  if (interrupted_ && !stopped_) seek_way();
}

void RelayStream::on_peer_connected() {
  if (std::exchange(interrupted_, false)) {
    SARNET_LOG(kInfo, "The media connection for " << words_.purpose << " has healed");
  }
  retry_.stop();
  if (!hung_up_) limit_.stop();
  if (!std::exchange(connected_, true)) connected();
}

void RelayStream::notice(const json& message) {
  const std::string kind = text_of(message, "janus");
  if (kind == "trickle") {
    const json& candidate = member(message, "candidate");
    const std::int64_t mline = number_of(candidate, "sdpMLineIndex");
    const std::string text = text_of(candidate, "candidate");
    const bool is_usable = mline >= 0 && std::cmp_less(mline, kMaxMedia) &&
                           text.size() <= kMaxCandidate && ++candidates_ <= kMaxCandidates;
    if (is_usable) add_remote_candidate(static_cast<unsigned>(mline), text);
  } else if (kind == "hangup" && !std::exchange(hung_up_, true)) {
    // Delayed, as the stream or the session may be ending with it.
    limit_ = MainLoop::Timer(
        *access_.loop, kHangupPatience, [this, reason = text_of(message, "reason")] {
          fail({words_.webrtc_error,
                std::string("The server ended ") + words_.subject + ": " + printable_text(reason)});
        });
  }
}

void RelayStream::fail(const Failure& failure) {
  if (stopped_) return;
  SARNET_LOG(kWarn, "A stream failed: " << failure.text);
  const auto self = shared_from_this();
  report(failure);
  stop();
  withdraw();
  over_(*this);
}

void RelayStream::stop() {
  stopped_ = true;
  limit_.stop();
  retry_.stop();
}

void RelayStream::withdraw() {
  if (handle_ != 0) access_.client.detach(handle_);
}

}  // namespace sarnet::relay
