#include "relay/signalling/janus_client.h"

#include <sarnet/sarnet.h>

#include <utility>

#include "base/log.h"
#include "base/printable_text.h"
#include "relay/signalling/wire_limits.h"

namespace sarnet::relay {
namespace {

constexpr std::chrono::milliseconds kRetryPeriod{250};
// What the first attempt of a break may take to reach the server, and how much longer each further
// one: short, as the first packet of one that was made while the link was away is repeated only
// seconds after its return, and longer and longer, as a link may be slow. What it may take from
// then on, for encryption and the session, grows likewise.
constexpr std::chrono::milliseconds kFirstReach{1000};
constexpr std::chrono::milliseconds kReachGrowth{250};
constexpr std::chrono::milliseconds kFirstGreeting{3000};
constexpr std::chrono::milliseconds kGreetingGrowth{1000};
// For an answer after a change of the network.
constexpr std::chrono::milliseconds kProbeLimit{1500};

}  // namespace

JanusClient::JanusClient(MainLoop& loop, JanusSettings settings, JanusObserver& observer)
    : loop_(loop), settings_(std::move(settings)), observer_(observer) {}

JanusClient::~JanusClient() { end(); }

void JanusClient::open(std::function<void(const Failure*)> done) {
  loop_.thread().require();
  opened_ = std::move(done);
  state_ = State::kConnecting;
  connect_timer_ = MainLoop::Timer(loop_, settings_.connect_limit, [this] {
    fail_opening({SRN_SESSION_CONNECTION_TIMED_OUT,
                  "Cannot connect to " + settings_.url + ": no answer in time"});
  });
  connect();
}

void JanusClient::connect() {
  const unsigned number = ++socket_number_;
  socket_ = std::make_shared<JanusSocket>(
      JanusSocket::Callbacks{[this] { connected(); },
                             [this, number](std::string_view text) { received(number, text); },
                             [this, number](const std::string& reason, JanusSocket::Loss loss) {
                               socket_failed(number, reason, loss);
                             }},
      loop_.under_way());
  std::string error;
  if (socket_->open(settings_.url, settings_.ca_file, error)) return;
  loop_.post([this, socket = std::weak_ptr(socket_), error] {
    if (!socket.expired()) connection_failed(error, JanusSocket::Loss::kBroken);
  });
}

void JanusClient::connected() {
  if (state_ == State::kBroken) {
    claim();
    return;
  }
  request(
      {{"janus", "create"}}, [this](const JanusReply& reply) { session_created(reply); },
      {.id = true}, false, true);
}

void JanusClient::session_created(const JanusReply& reply) {
  if (!reply.ok()) {
    fail_opening(session_failure("opening a session", reply));
    return;
  }
  session_ = id_of(member(reply.message, "data"), "id");
  connect_timer_.stop();
  state_ = State::kOpen;
  life_timer_ = MainLoop::Timer(
      loop_, settings_.keepalive, [this] { check_life(); }, true);
  heard_ = true;
  std::exchange(opened_, nullptr)(nullptr);
}

void JanusClient::fail_opening(const Failure& failure) {
  end();
  if (const auto opened = std::exchange(opened_, nullptr)) opened(&failure);
}

void JanusClient::heard(unsigned socket, const std::string& transaction) {
  // Not once the session was claimed by the other one, which is the server's now.
  if (!silent_socket_ || socket != silent_number_ || state_ != State::kBroken || claimed_) return;
  if (transaction == last_sent_) {
    socket_->close();
    socket_ = std::exchange(silent_socket_, nullptr);
    resumed();
  } else if (!std::exchange(hastened_, true) && !socket_->has_reached()) {
    // The link is back. What we said on it may yet be on its way for long: TCP repeats it ever more
    // seldom, and what comes does not hasten it.
    try_again();
  }
}

void JanusClient::socket_failed(unsigned socket, const std::string& reason,
                                JanusSocket::Loss loss) {
  if (silent_socket_ && socket == silent_number_) {
    silent_socket_.reset();
  } else {
    connection_failed(reason, loss);
  }
}

void JanusClient::connection_failed(const std::string& reason, JanusSocket::Loss loss) {
  const bool is_foul = loss == JanusSocket::Loss::kFoul;
  switch (state_) {
    case State::kConnecting:
      fail_opening(
          {SRN_SESSION_CONNECTION_FAILED, "Cannot connect to " + settings_.url + ": " + reason});
      break;
    case State::kOpen:
      if (closed_) {
        end();
        std::exchange(closed_, nullptr)();
      } else if (is_foul) {
        break_reason_ = reason;
        lost("for good");
      } else {
        broken(reason);
      }
      break;
    case State::kBroken:
      if (is_foul) {
        break_reason_ = reason;
        lost("for good");
        break;
      }
      if (loss == JanusSocket::Loss::kUnreachable) {
        refusal_timer_.stop();
      } else if (!refusal_timer_) {
        refusal_timer_ = MainLoop::Timer(loop_, settings_.refusal_limit, [this, reason] {
          lost("and the server refuses another: " + reason);
        });
      }
      attempt_timer_.stop();
      retry_timer_ = MainLoop::Timer(loop_, kRetryPeriod, [this] { try_again(); });
      break;
    default:
      break;
  }
}

void JanusClient::check_life() {
  if (state_ != State::kOpen || closed_) return;
  if (!heard_) {
    fell_silent("no sign of life");
    return;
  }
  heard_ = false;
  breaks_ = 0;
  request({{"janus", "keepalive"}}, nullptr, {}, true);
}

void JanusClient::broken(const std::string& reason) {
  SARNET_LOG(kWarn, "The connection to " << settings_.url << " broke: " << reason);
  state_ = State::kBroken;
  probe_timer_.stop();
  break_reason_ = reason;
  if (++breaks_ > kMaxBreaks) {
    lost("again and again");
    return;
  }
  break_timer_ = MainLoop::Timer(loop_, settings_.reconnect_limit,
                                 [this] { lost("and could not be resumed in time"); });
  attempts_ = 0;
  try_again();
}

void JanusClient::fell_silent(const std::string& reason) {
  silent_socket_ = std::move(socket_);
  silent_number_ = socket_number_;
  hastened_ = false;
  broken(reason);
}

void JanusClient::try_again() {
  retry_timer_.stop();
  const auto renew = [this] {
    refusal_timer_.stop();
    try_again();
  };
  const auto greeting = kFirstGreeting + attempts_ * kGreetingGrowth;
  attempt_timer_ =
      MainLoop::Timer(loop_, kFirstReach + attempts_ * kReachGrowth, [this, renew, greeting] {
        if (socket_->has_reached()) {
          attempt_timer_ = MainLoop::Timer(loop_, greeting, renew);
        } else {
          renew();
        }
      });
  ++attempts_;
  claimed_ = false;
  if (socket_) socket_->close();
  connect();
}

void JanusClient::network_changed() {
  if (closed_) return;
  if (state_ == State::kBroken) {
    try_again();
  } else if (state_ == State::kOpen && !probe_timer_) {
    probe_timer_ =
        MainLoop::Timer(loop_, kProbeLimit, [this] { fell_silent("the network has changed"); });
    request({{"janus", "keepalive"}}, nullptr, {}, true);
  }
}

void JanusClient::claim() {
  claimed_ = true;
  request(
      {{"janus", "claim"}},
      [this, by = std::weak_ptr(socket_)](const JanusReply& reply) {
        if (state_ != State::kBroken || by.lock() != socket_) return;
        if (reply.ok()) {
          resumed();
        } else if (reply.outcome == JanusReply::Outcome::kRefused) {
          lost("and the server does not know the session any more: " + printable_text(reply.text));
        } else if (reply.outcome == JanusReply::Outcome::kMalformed) {
          lost("and the server's answer to its resumption cannot be used: " + reply.text);
        } else {
          try_again();
        }
      },
      {}, false, true);
}

void JanusClient::resumed() {
  SARNET_LOG(kInfo, "The connection to " << settings_.url << " was resumed");
  for (auto* timer : {&break_timer_, &refusal_timer_, &attempt_timer_}) timer->stop();
  if (const auto silent = std::exchange(silent_socket_, nullptr)) silent->close();
  state_ = State::kOpen;
  heard_ = true;
  for (const auto& [transaction, text] : std::exchange(unsent_, {})) {
    last_sent_ = transaction;
    socket_->send(text);
  }
  observer_.on_resumed();
}

void JanusClient::lost(const std::string& reason) {
  end();
  observer_.on_lost(
      {SRN_SESSION_CONNECTION_DROPPED,
       "The connection to " + settings_.url + " broke (" + break_reason_ + ") " + reason});
}

void JanusClient::attach(const std::string& plugin,
                         std::function<void(const JanusReply&, std::uint64_t handle)> answer) {
  request({{"janus", "attach"}, {"plugin", plugin}},
          [answer = std::move(answer)](const JanusReply& reply) {
            answer(reply, reply.ok() ? id_of(member(reply.message, "data"), "id") : 0);
          },
          {.id = true});
}

void JanusClient::detach(std::uint64_t handle) {
  loop_.thread().require();
  request({{"janus", "detach"}, {"handle_id", handle}}, nullptr);
}

void JanusClient::message(std::uint64_t handle, json body, const std::string& sdp_type,
                          const std::string& sdp, Answer answer, const Expected& expected) {
  json message{{"janus", "message"}, {"handle_id", handle}, {"body", std::move(body)}};
  if (!sdp.empty()) message["jsep"] = {{"type", sdp_type}, {"sdp", sdp}};
  request(std::move(message), std::move(answer), expected);
}

void JanusClient::trickle(std::uint64_t handle, unsigned mline, const std::string& candidate) {
  loop_.thread().require();
  const json text = candidate.empty() ? json{{"completed", true}}
                                      : json{{"sdpMLineIndex", mline}, {"candidate", candidate}};
  request({{"janus", "trickle"}, {"handle_id", handle}, {"candidate", text}}, nullptr, {}, true);
}

void JanusClient::request(json message, Answer answer, const Expected& expected,
                          bool acknowledged_is_answer, bool now) {
  if (state_ == State::kIdle || state_ == State::kClosed) return;
  const std::string transaction = std::to_string(next_transaction_++);
  message["transaction"] = transaction;
  if (!settings_.token.empty()) message["token"] = settings_.token;
  if (session_ != 0) message["session_id"] = session_;
  if (answer) {
    Pending& pending = pending_[transaction];
    pending.answer = std::move(answer);
    pending.expected = expected;
    pending.acknowledged_is_answer = acknowledged_is_answer;
    pending.limit = MainLoop::Timer(loop_, settings_.answer_limit, [this, transaction] {
      JanusReply late;
      late.outcome = JanusReply::Outcome::kTimedOut;
      this->answer(transaction, late);
    });
  }
  // Tokens and addresses stay out of the log.
  SARNET_LOG(kDebug, "relay: asks " << text_of(message, "janus") << ' '
                                    << text_of(member(message, "body"), "request") << " as "
                                    << transaction << " on " << number_of(message, "handle_id"));
  std::string text = message.dump(-1, ' ', false, json::error_handler_t::replace);
  if (now || state_ == State::kOpen) {
    if (state_ == State::kOpen) last_sent_ = transaction;
    socket_->send(text);
  } else {
    unsent_.emplace_back(transaction, std::move(text));
  }
}

void JanusClient::answer(const std::string& transaction, const JanusReply& reply) {
  const auto found = pending_.find(transaction);
  if (found == pending_.end()) return;
  const Pending pending = std::move(found->second);
  pending_.erase(found);
  pending.answer(reply);
}

void JanusClient::received(unsigned socket, std::string_view text) {
  loop_.thread().require();
  heard_ = true;
  probe_timer_.stop();
  json message = parse_message(text);
  if (message.is_null()) {
    SARNET_LOG(kWarn, "The server sent what is not a message");
    return;
  }
  const std::string kind = text_of(message, "janus");
  const std::string transaction = text_of(message, "transaction");
  heard(socket, transaction);
  SARNET_LOG(kDebug, "relay: hears " << printable_text(kind) << ' '
                                     << printable_text(text_of(plugin_data(message), "videoroom"))
                                     << " to " << printable_text(transaction) << " on "
                                     << number_of(message, "sender"));
  if (const auto found = pending_.find(transaction); found != pending_.end()) {
    if (kind != "ack" || found->second.acknowledged_is_answer) {
      const Expected expected = found->second.expected;
      answer(transaction, make_reply(std::move(message), expected));
    }
    return;
  }
  if (state_ != State::kOpen || closed_ || kind == "ack" || kind == "success") return;
  if (kind == "timeout") {
    break_reason_ = "the server gave the session up";
    lost("for good");
    return;
  }
  if (kind == "error") {
    SARNET_LOG(kWarn, "The server refused a request: "
                          << printable_text(text_of(member(message, "error"), "reason")));
    return;
  }
  observer_.on_notice(id_of(message, "sender"), message);
}

void JanusClient::close(std::chrono::milliseconds limit, std::function<void()> done) {
  loop_.thread().require();
  const auto finish = [this] {
    end();
    std::exchange(closed_, nullptr)();
  };
  closed_ = std::move(done);
  if (state_ != State::kOpen) {
    loop_.post(finish);
    return;
  }
  for (auto& each : pending_) each.second.answer = [](const JanusReply&) {};
  close_timer_ = MainLoop::Timer(loop_, limit, finish);
  request({{"janus", "destroy"}}, [finish](const JanusReply&) { finish(); });
}

void JanusClient::end() {
  state_ = State::kClosed;
  for (const auto& socket : {socket_, silent_socket_}) {
    if (socket) socket->close();
  }
  pending_.clear();
  unsent_.clear();
  for (auto* timer : {&connect_timer_, &break_timer_, &refusal_timer_, &attempt_timer_,
                      &retry_timer_, &probe_timer_, &life_timer_, &close_timer_}) {
    timer->stop();
  }
}

}  // namespace sarnet::relay
