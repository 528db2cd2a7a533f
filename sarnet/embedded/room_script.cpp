// The scripted part of a room: participants that come and go, and events that happen to sessions.

#include <algorithm>
#include <utility>

#include "base/epoch.h"
#include "base/log.h"
#include "embedded/room.h"

namespace sarnet {
namespace {

using std::chrono::milliseconds;

}  // namespace

void Room::begin_script() {
  if (std::exchange(script_begun_, true)) return;
  const auto start = Clock::now();
  for (const auto& actor : actors_) {
    const ScenarioParticipant& script = actor->script;
    at(start + milliseconds(script.join_at_ms),
       [this, who = actor.get()]() REQUIRES(mutex_) { enter(*who); });
    if (script.leave_at_ms) {
      at(start + milliseconds(*script.leave_at_ms),
         [this, who = actor.get()]() REQUIRES(mutex_) { exit(*who); });
    }
  }
  for (const ScenarioEvent& event : scenario_.events) {
    at(start + milliseconds(event.at_ms), [this, &event]() REQUIRES(mutex_) { perform(event); });
  }
}

void Room::enter(Actor& actor) {
  actor.present = true;
  actor.connection.created_ms = epoch_ms();
  record("participant_joined", {{"participant", actor.script.id}});
  notify_others(nullptr, [&](SessionSink& sink) { sink.participant_joined(actor.connection); });
  if (!actor.player) return;
  actor.stream = std::make_shared<RoomStream>(
      StreamInfo{actor.script.id + "-stream", actor.script.name, actor.connection});
  notify_others(nullptr, [&](SessionSink& sink) { sink.stream_added(actor.stream->info()); });
  actor.player->start(actor.stream);
}

void Room::drop_stream(Actor& actor) {
  if (actor.player) actor.player->stop();
  const auto stream = std::exchange(actor.stream, nullptr);
  if (!stream) return;
  stream->close();
  end_subscriptions(stream->info().id);
  notify_others(nullptr, [&](SessionSink& sink) { sink.stream_removed(stream->info()); });
}

void Room::exit(Actor& actor) {
  if (!std::exchange(actor.present, false)) return;
  drop_stream(actor);
  record("participant_left", {{"participant", actor.script.id}});
  notify_others(nullptr, [&](SessionSink& sink) { sink.participant_left(actor.connection); });
}

void Room::perform(const ScenarioEvent& event) {
  switch (event.kind) {
    case ScenarioEvent::Kind::kError:
      record("error", {{"text", event.text}});
      end_for_all([&](SessionSink& sink) { sink.session_failed(event.code, event.text); });
      break;
    case ScenarioEvent::Kind::kDisconnect:
      record("disconnect", {});
      end_for_all([](SessionSink& sink) { sink.session_ended(); });
      break;
    case ScenarioEvent::Kind::kDropStream:
      for (const auto& actor : actors_) {
        if (actor->script.id != event.participant) continue;
        record("stream_dropped", {{"participant", event.participant}});
        drop_stream(*actor);
      }
      break;
    case ScenarioEvent::Kind::kPublisherError:
      record("publisher_error", {{"text", event.text}});
      fail_publications(event);
      break;
    case ScenarioEvent::Kind::kSubscriberError:
      record("subscriber_error", {{"text", event.text}});
      fail_subscriptions(event);
      break;
  }
}

void Room::end_for_all(const std::function<void(SessionSink&)>& tell) {
  notify_others(nullptr, tell);
  for (const auto& member : members_) {
    for (const Published& publication : member->publications) publication.stream->close();
  }
  for (const auto& actor : actors_) {
    if (actor->stream) actor->stream->close();
  }
  subscriptions_.clear();
  members_.clear();
  close_if_empty();
}

void Room::fail_publications(const ScenarioEvent& event) {
  for (const auto& member : members_) {
    const auto publications = std::exchange(member->publications, {});
    for (const Published& publication : publications) {
      publication.sink->publication_failed(event.code, event.text);
      remove_publication(*member, publication);
    }
  }
}

void Room::fail_subscriptions(const ScenarioEvent& event) {
  std::erase_if(subscriptions_, [&](const Subscribed& each) REQUIRES(mutex_) {
    const bool meant = event.participant.empty() ||
                       std::any_of(actors_.begin(), actors_.end(), [&](const auto& actor) {
                         return actor->script.id == event.participant && actor->stream &&
                                actor->stream->info().id == each.stream_id;
                       });
    if (!meant) return false;
    if (const auto stream = find_stream(each.stream_id, each.member)) {
      stream->remove(each.sink.get());
    }
    each.sink->subscription_failed(event.code, event.text);
    return true;
  });
}

}  // namespace sarnet
