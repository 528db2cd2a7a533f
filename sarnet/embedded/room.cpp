#include "embedded/room.h"

#include <sarnet/sarnet.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "base/epoch.h"
#include "base/log.h"
#include "base/thread_keeper.h"
#include "base/unique_name.h"

namespace sarnet {
namespace {

using std::chrono::milliseconds;

// The response time of a nearby server.
constexpr milliseconds kLatency{3};

}  // namespace

Room::Room(std::string session_id, std::string scenario_path)
    : session_id_(std::move(session_id)), scenario_path_(std::move(scenario_path)) {}

void Room::open() {
  ThreadKeeper::instance().start("srn-room", [self = shared_from_this()] { self->run(); });
}

bool Room::set(Stage& stage, std::string& error) const {
  if (scenario_path_.empty()) {
    stage.scenario = default_scenario();
  } else {
    auto scenario = load_scenario(scenario_path_, error);
    if (!scenario) return false;
    stage.scenario = std::move(*scenario);
  }
  for (const ScenarioParticipant& script : stage.scenario.participants) {
    auto actor = std::make_unique<Actor>();
    actor->script = script;
    actor->connection = {script.id, script.data, session_id_, 0};
    if (script.publishes()) {
      actor->player = Player::create(script, over_, error);
      if (!actor->player) return false;
    }
    stage.actors.push_back(std::move(actor));
  }
  if (!stage.scenario.record_folder.empty()) {
    stage.recorder = Recorder::create(stage.scenario.record_folder, error);
    if (!stage.recorder) error = stage.scenario.place_of("record") + ": " + error;
  }
  return error.empty();
}

void Room::prepare() {
  Stage stage;
  std::string error;
  bool fine = false;
  try {
    fine = set(stage, error);
  } catch (const std::exception& failure) {  // no memory for what a file holds
    error = stage.scenario.place_of(failure.what());
  }
  const common::LockGuard lock(mutex_);
  fault_ = error;
  if (fine) {
    scenario_ = std::move(stage.scenario);
    actors_ = std::move(stage.actors);
    recorder_ = std::move(stage.recorder);
  }
  ready_ = true;
  for (const auto& member : members_) {
    at(Clock::now() + std::max(kLatency, milliseconds(scenario_.join_delay_ms)),
       [this, key = member->key]() REQUIRES(mutex_) { admit(key); });
  }
}

void Room::run() {
  prepare();
  common::UniqueLock lock(mutex_);
  while (!closed_) {
    if (actions_.empty()) {
      changed_.wait(lock.native());
    } else if (const auto next = actions_.begin(); next->first > Clock::now()) {
      // The time is copied: the action may be erased while this waits.
      const auto due = next->first;
      changed_.wait_until(lock.native(), due);
    } else {
      const auto action = std::move(next->second);
      actions_.erase(next);
      action();
    }
  }
  actions_.clear();
  for (const auto& actor : actors_) {
    if (actor->player) actor->player->stop();
    if (actor->stream) actor->stream->close();
  }
  if (recorder_) recorder_->close();
}

void Room::at(Clock::time_point time, std::function<void()> action) {
  actions_.emplace(time, std::move(action));
  changed_.notify_one();
}

void Room::post(std::function<void()> action) { at(Clock::now() + kLatency, std::move(action)); }

void Room::record(const char* event,
                  std::initializer_list<std::pair<const char*, std::string>> fields) {
  if (!recorder_) return;
  nlohmann::json values;
  for (const auto& [name, text] : fields) values[name] = text;
  recorder_->log(event, std::move(values));
}

// ---- Members ----

bool Room::closed() const {
  const common::LockGuard lock(mutex_);
  return closed_;
}

bool Room::join(const void* member, const std::string& token, std::shared_ptr<SessionSink> sink) {
  const common::LockGuard lock(mutex_);
  if (closed_) return false;
  auto& entry = members_.emplace_back(std::make_unique<Member>());
  entry->key = member;
  entry->token = token;
  entry->sink = std::move(sink);
  if (ready_) {
    at(Clock::now() + std::max(kLatency, milliseconds(scenario_.join_delay_ms)),
       [this, member]() REQUIRES(mutex_) { admit(member); });
  }
  return true;
}

std::string Room::refusal_of(const Member& member, int& code) const {
  if (!fault_.empty()) {
    code = SRN_SESSION_CONNECTION_FAILED;
    return fault_;
  }
  if (scenario_.refusal) {
    code = scenario_.refusal->code;
    return scenario_.refusal->text;
  }
  if (scenario_.token && *scenario_.token != member.token) {
    code = SRN_SESSION_AUTHORIZATION_FAILURE;
    return "The token is not the one that the scenario accepts";
  }
  code = 0;
  return {};
}

void Room::admit(const void* key) {
  Member* const member = find_member(key);
  if (member == nullptr || member->joined) return;
  int code = 0;
  if (const std::string text = refusal_of(*member, code); code != 0) {
    record("refused", {{"text", text}});
    member->sink->session_failed(code, text);
    std::erase_if(members_, [&](const auto& each) { return each->key == key; });
    close_if_empty();
    return;
  }
  member->connection = {unique_name("connection"), "", session_id_, epoch_ms()};
  member->joined = true;
  record("joined", {{"connection", member->connection.id}});
  SessionSink& sink = *member->sink;
  sink.joined(member->connection);
  for (const auto& actor : actors_) {
    if (!actor->present) continue;
    sink.participant_joined(actor->connection);
    if (actor->stream) sink.stream_added(actor->stream->info());
  }
  for (const auto& other : members_) {
    if (other->key == key || !other->joined) continue;
    sink.participant_joined(other->connection);
    for (const Published& publication : other->publications) {
      if (publication.announced) sink.stream_added(publication.stream->info());
    }
    other->sink->participant_joined(member->connection);
  }
  begin_script();
}

void Room::leave(const void* key) {
  const common::LockGuard lock(mutex_);
  const auto found = std::find_if(members_.begin(), members_.end(),
                                  [&](const auto& each) { return each->key == key; });
  if (found == members_.end()) return;
  const auto member = std::move(*found);
  members_.erase(found);
  std::erase_if(subscriptions_, [&](const Subscribed& each) REQUIRES(mutex_) {
    if (each.member != key) return false;
    if (const auto stream = find_stream(each.stream_id, key)) stream->remove(each.sink.get());
    return true;
  });
  for (const Published& publication : member->publications) {
    remove_publication(*member, publication);
  }
  if (member->joined) {
    record("left", {{"connection", member->connection.id}});
    notify_others(key, [&](SessionSink& sink) { sink.participant_left(member->connection); });
  }
  close_if_empty();
}

void Room::close_if_empty() {
  if (!members_.empty() || closed_) return;
  closed_ = true;
  *over_ = true;
  changed_.notify_one();
}

Room::Member* Room::find_member(const void* key) {
  for (const auto& member : members_) {
    if (member->key == key) return member.get();
  }
  return nullptr;
}

void Room::notify_others(const void* key, const std::function<void(SessionSink&)>& tell) {
  for (const auto& member : members_) {
    if (member->joined && member->key != key) tell(*member->sink);
  }
}

// ---- Streams of members ----

std::shared_ptr<PublishedStream> Room::publish(const void* key, const PublishRequest& request,
                                               std::shared_ptr<PublicationSink> sink) {
  const common::LockGuard lock(mutex_);
  Member* const member = find_member(key);
  if (member == nullptr || !member->joined || closed_) return nullptr;
  StreamInfo info{unique_name("stream"), request.name, member->connection};
  int recording = 0;
  if (recorder_) {
    recording = recorder_->begin_publication(request.name, request.has_audio, request.has_video,
                                             request.video_fps);
  }
  auto stream = std::make_shared<RoomStream>(std::move(info), recorder_, recording);
  member->publications.push_back({stream, std::move(sink), false});
  post([this, key, stream]() REQUIRES(mutex_) { announce(key, stream.get()); });
  return stream;
}

void Room::announce(const void* key, const RoomStream* stream) {
  Member* const member = find_member(key);
  if (member == nullptr) return;
  for (Published& publication : member->publications) {
    if (publication.stream.get() != stream) continue;
    publication.announced = true;
    publication.sink->published(stream->info());
    notify_others(key, [&](SessionSink& sink) { sink.stream_added(stream->info()); });
  }
}

void Room::unpublish(const void* key, const PublishedStream* stream) {
  const common::LockGuard lock(mutex_);
  Member* const member = find_member(key);
  if (member == nullptr) return;
  const auto found =
      std::find_if(member->publications.begin(), member->publications.end(),
                   [&](const Published& each) { return each.stream.get() == stream; });
  if (found == member->publications.end()) return;
  const Published publication = std::move(*found);
  member->publications.erase(found);
  remove_publication(*member, publication);
}

void Room::remove_publication(Member& member, const Published& publication) {
  publication.stream->close();
  end_subscriptions(publication.stream->info().id);
  if (!publication.announced) return;
  notify_others(member.key,
                [&](SessionSink& sink) { sink.stream_removed(publication.stream->info()); });
}

// ---- Subscriptions ----

std::shared_ptr<RoomStream> Room::find_stream(const std::string& id, const void* key) {
  for (const auto& actor : actors_) {
    if (actor->stream && actor->stream->info().id == id) return actor->stream;
  }
  for (const auto& member : members_) {
    if (member->key == key) continue;
    for (const Published& publication : member->publications) {
      if (publication.announced && publication.stream->info().id == id) return publication.stream;
    }
  }
  return nullptr;
}

void Room::subscribe(const void* key, const std::string& stream_id,
                     std::shared_ptr<SubscriptionSink> sink) {
  const common::LockGuard lock(mutex_);
  const Member* const member = find_member(key);
  if (member == nullptr || !member->joined || closed_) return;
  const SubscriptionSink* const address = sink.get();
  subscriptions_.push_back({key, stream_id, std::move(sink)});
  post([this, address]() REQUIRES(mutex_) { answer_subscription(address); });
}

void Room::answer_subscription(const SubscriptionSink* sink) {
  const auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                                  [&](const auto& each) { return each.sink.get() == sink; });
  if (found == subscriptions_.end()) return;
  if (const auto stream = find_stream(found->stream_id, found->member)) {
    record("subscribed", {{"stream", found->stream_id}});
    stream->add(found->sink);
    return;
  }
  const auto gone = std::move(*found);
  subscriptions_.erase(found);
  gone.sink->subscription_failed(SRN_SUBSCRIBER_SERVER_CANNOT_FIND_STREAM,
                                 "There is no stream " + gone.stream_id);
}

void Room::unsubscribe(const SubscriptionSink* sink) {
  const common::LockGuard lock(mutex_);
  const auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                                  [&](const auto& each) { return each.sink.get() == sink; });
  if (found == subscriptions_.end()) return;
  if (const auto stream = find_stream(found->stream_id, found->member)) stream->remove(sink);
  subscriptions_.erase(found);
}

void Room::end_subscriptions(const std::string& stream_id) {
  std::erase_if(subscriptions_, [&](const Subscribed& each) {
    if (each.stream_id != stream_id) return false;
    each.sink->subscription_ended();
    return true;
  });
}

}  // namespace sarnet
