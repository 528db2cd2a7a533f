#include "relay/room/relay_session.h"

#include <sarnet/sarnet.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/epoch.h"
#include "base/log.h"
#include "base/printable_text.h"
#include "relay/room/unique_id.h"

namespace sarnet::relay {
namespace {

// How long to wait for the server's reply to leaving.
constexpr std::chrono::milliseconds kLeaveLimit{1000};
constexpr int kMaxPublishers = 100;

JanusSettings client_settings(JanusSettings client, const RelaySettings& settings,
                              const std::string& token) {
  client.url = settings.url;
  client.ca_file = settings.ca_file;
  client.token = parse_credentials(token).request_token;
  return client;
}

}  // namespace

RelaySession::RelaySession(std::shared_ptr<MainLoop> loop,
                           std::shared_ptr<const std::atomic<bool>> left, RelaySettings settings,
                           JoinRequest request, std::shared_ptr<SessionSink> sink,
                           JanusSettings client)
    : loop_(std::move(loop)),
      settings_(std::move(settings)),
      request_(std::move(request)),
      sink_(std::move(sink)),
      client_(*loop_, client_settings(std::move(client), settings_, request_.token), *this),
      access_{loop_,
              std::move(left),
              client_,
              settings_,
              request_.session_id,
              parse_credentials(request_.token),
              {},
              nullptr} {}

RelaySession::~RelaySession() = default;

SessionSink* RelaySession::sink() const { return *access_.left ? nullptr : sink_.get(); }

void RelaySession::join() {
  loop_->thread().require();
  client_.open([this](const Failure* failure) {
    if (failure != nullptr) {
      fail(*failure);
      return;
    }
    client_.attach(kRoomPlugin, [this](const JanusReply& reply, std::uint64_t handle) {
      handle_ = handle;
      if (reply.ok()) {
        enter_room(true);
      } else {
        fail(session_failure("opening the room service", reply));
      }
    });
  });
}

void RelaySession::enter_room(bool may_create) {
  access_.own = {unique_id(), "", request_.session_id, epoch_ms()};
  json body = access_.request("join");
  body["ptype"] = "publisher";
  body["id"] = access_.own.id;
  body["display"] = format_display({access_.own.data, access_.own.created_ms, "", ""});
  client_.message(handle_, std::move(body), "", "",
                  [this, may_create](const JanusReply& reply) {
                    if (reply.ok()) {
                      entered(reply.data());
                    } else if (may_create && reply.error == JanusError::kNoSuchRoom) {
                      create_room();
                    } else {
                      fail(session_failure("entering the room", reply));
                    }
                  },
                  {.room = "joined"});
}

void RelaySession::create_room() {
  json body{{"request", "create"},
            {"room", access_.room},
            {"publishers", kMaxPublishers},
            {"notify_joining", true},
            {"audiocodec", "opus"},
            {"videocodec", "vp8,h264"},
            {"bitrate", 0},
            // It gives full control of the room, so nobody gets to know it.
            {"secret", random_secret()},
            {"is_private", true},
            {"lock_record", true},
            {"rec_dir", "/"}};  // else participants could have the server create folders
  if (!settings_.admin_key.empty()) body["admin_key"] = settings_.admin_key;
  if (!access_.credentials.pin.empty()) body["pin"] = access_.credentials.pin;
  if (access_.credentials.has_room_token) body["signed_tokens"] = true;
  client_.message(handle_, std::move(body), "", "", [this](const JanusReply& reply) {
    // Another participant may have made it meanwhile.
    if (reply.ok() || reply.error == JanusError::kRoomExists) {
      enter_room(false);
    } else {
      fail(session_failure("making the room, which is not there", reply));
    }
  });
}

void RelaySession::entered(const json& data) {
  auto* const to = sink();
  if (to == nullptr) return;
  std::string error;
  access_.identity = DtlsIdentity::create(error);  // a peer without one says why
  to->joined(access_.own);
  room_.emplace(request_.session_id, access_.own.id, *this);
  room_->take(data);
  watch_.emplace(*loop_, [this] { network_changed(); });
}

void RelaySession::network_changed() {
  SARNET_LOG(kInfo, "The machine's addresses or routes have changed");
  client_.network_changed();
  for (const auto& stream : streams()) stream->network_changed();
}

void RelaySession::leave(std::function<void()> done) {
  loop_->thread().require();
  sink_.reset();
  watch_.reset();
  // The server first, so that the others learn at once; it ends all handles with the session.
  auto both = std::make_shared<int>(2);
  const auto one_done = [both, done = std::move(done)] {
    if (--*both == 0) done();
  };
  client_.close(kLeaveLimit, one_done);
  stop_next(one_done);
}

std::vector<std::shared_ptr<RelayStream>> RelaySession::streams() const {
  std::vector<std::shared_ptr<RelayStream>> all(publications_.begin(), publications_.end());
  all.insert(all.end(), subscriptions_.begin(), subscriptions_.end());
  return all;
}

// One at a time, with the loop's other work in between: each takes some milliseconds.
void RelaySession::stop_next(std::function<void()> done) {
  const auto all = streams();
  if (all.empty()) {
    done();
    return;
  }
  all.front()->stop();
  remove(*all.front());
  loop_->post([this, done = std::move(done)] { stop_next(done); });
}

void RelaySession::stop_media() {
  watch_.reset();
  for (const auto& stream : streams()) {
    stream->stop();
    remove(*stream);
  }
}

void RelaySession::fail(const Failure& failure) {
  const auto told = std::exchange(sink_, nullptr);
  stop_media();
  if (told && !*access_.left) told->session_failed(failure.code, failure.text);
}

void RelaySession::end() {
  const auto told = std::exchange(sink_, nullptr);
  stop_media();
  if (told && !*access_.left) told->session_ended();
}

void RelaySession::publish(const PublishRequest& request, std::shared_ptr<PublishedFeed> feed,
                           std::shared_ptr<PublicationSink> sink) {
  if (*access_.left) return;
  if (!sink_ || !room_) {
    sink->publication_failed(SRN_PUBLISHER_SESSION_DISCONNECTED, "The session is over");
    return;
  }
  const auto publication =
      std::make_shared<RelayPublication>(access_, request, std::move(feed), std::move(sink),
                                         [this](const RelayStream& gone) { remove(gone); });
  publications_.push_back(publication);
  const bool is_free = !handle_taken_ && !handle_hanging_up_;
  if (is_free) handle_taken_ = true;
  publication->start(is_free ? handle_ : 0);
}

void RelaySession::unpublish(const PublishedStream* stream) {
  loop_->thread().require();
  const auto found =
      std::ranges::find_if(publications_, [&](const auto& each) { return each->feed() == stream; });
  if (found == publications_.end()) return;
  const auto publication = *found;
  publication->stop();
  publication->withdraw();
  remove(*publication);
}

void RelaySession::remove(const RelayStream& gone) {
  const auto is_it = [&](const auto& each) { return each.get() == &gone; };
  std::erase_if(subscriptions_, is_it);
  std::erase_if(publications_, [&](const auto& each) {
    if (!is_it(each)) return false;
    if (each->shares_handle()) {
      handle_taken_ = false;
      handle_hanging_up_ = each->negotiated();
    }
    return true;
  });
}

void RelaySession::subscribe(const std::string& stream_id, std::shared_ptr<SwitchableSink> sink) {
  loop_->thread().require();
  auto* const target = sink->target();
  if (target == nullptr) return;
  if (!sink_ || !room_) {
    target->subscription_failed(SRN_SUBSCRIBER_SESSION_DISCONNECTED, "The session is over");
    return;
  }
  if (!room_->has_stream(stream_id)) {
    target->subscription_failed(SRN_SUBSCRIBER_SERVER_CANNOT_FIND_STREAM,
                                "There is no stream " + printable_text(stream_id));
    return;
  }
  const auto subscription = std::make_shared<RelaySubscription>(
      access_, stream_id, std::move(sink), [this](const RelayStream& gone) { remove(gone); });
  subscriptions_.push_back(subscription);
  subscription->start();
}

RelaySubscription* RelaySession::find(const SubscriptionSink* sink) const {
  const auto found = std::ranges::find_if(
      subscriptions_, [&](const auto& each) { return each->sink().leads_to(sink); });
  return found != subscriptions_.end() ? found->get() : nullptr;
}

void RelaySession::prefer(const SubscriptionSink* sink, const MediaPreferences& preferences) {
  loop_->thread().require();
  if (auto* subscription = find(sink)) subscription->prefer(preferences);
}

void RelaySession::unsubscribe(const SubscriptionSink* sink) {
  loop_->thread().require();
  auto* subscription = find(sink);
  if (subscription == nullptr) return;
  subscription->stop();
  subscription->withdraw();
  remove(*subscription);
}

void RelaySession::on_notice(std::uint64_t handle, const json& message) {
  loop_->thread().require();
  if (handle == 0) return;
  if (handle == handle_) {
    const std::string kind = text_of(message, "janus");
    if (kind == "event") room_notice(plugin_data(message));
    if (kind == "hangup" && std::exchange(handle_hanging_up_, false)) return;
    if (kind == "detached") {
      fail({SRN_SESSION_CONNECTION_DROPPED, "The server closed its room service"});
    }
  }
  for (const auto& stream : streams()) {
    if (stream->handle() == handle) stream->notice(message);
  }
}

void RelaySession::room_notice(const json& data) {
  if (!room_) return;
  const std::string kind = text_of(data, "videoroom");
  // "leaving" with "ok" is about ourselves: we were removed.
  if (kind == "destroyed" || text_of(data, "leaving") == "ok") {
    SARNET_LOG(kInfo, "The session was ended by the server: "
                          << (kind == "destroyed" ? "its room is gone" : "we were made to leave"));
    end();
    return;
  }
  room_->take(data);
}

void RelaySession::on_resumed() {
  if (!room_) return;
  for (const auto& stream : streams()) stream->resumed();
  client_.message(handle_, access_.request("listparticipants"), "", "",
                  [this, time = ++resumptions_](const JanusReply& reply) {
                    if (reply.ok()) {
                      room_->resynchronise(list_of(reply.data(), "participants"));
                    } else if (time == resumptions_ && client_.is_open()) {
                      // Else the connection broke again, and who is there is asked once more.
                      const Failure failure = session_failure("asking who is in the room", reply);
                      fail({SRN_SESSION_CONNECTION_DROPPED, failure.text});
                    }
                  },
                  {.room = "participants", .list = "participants"});
}

void RelaySession::on_lost(const Failure& failure) { fail(failure); }

void RelaySession::participant_joined(const ConnectionInfo& participant) {
  if (auto* to = sink()) to->participant_joined(participant);
}

void RelaySession::participant_left(const ConnectionInfo& participant) {
  if (auto* to = sink()) to->participant_left(participant);
}

void RelaySession::stream_added(const StreamInfo& stream) {
  if (auto* to = sink()) to->stream_added(stream);
}

void RelaySession::stream_removed(const StreamInfo& stream) {
  std::erase_if(subscriptions_, [&](const auto& each) {
    if (each->stream_id() != stream.id) return false;
    each->stream_removed();
    return true;
  });
  if (auto* to = sink()) to->stream_removed(stream);
}

}  // namespace sarnet::relay
