#pragma once

#include <sarnet/sarnet.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/engine.h"
#include "base/event_gate.h"
#include "base/strand.h"
#include "common/mutex.h"
#include "session/context.h"
#include "session/stream.h"

namespace sarnet {

class Publication;
class Publisher;
class Subscriber;
class Subscription;

struct SessionSettings {
  bool migration = false;
};

// The object behind srn_session: the state of one participation, and the strand on which all events
// of the session, its publishers and its subscribers come. Any thread.
class Session : public SessionSink, public std::enable_shared_from_this<Session> {
 public:
  // Throws std::system_error when the strand's thread cannot be made.
  Session(const Context& context, std::string api_key, std::string session_id,
          const srn_session_callbacks& callbacks, SessionSettings settings);

  void set_handle(srn_session* handle) { handle_ = handle; }
  const std::string& api_key() const { return api_key_; }
  const std::string& session_id() const { return session_id_; }

  srn_status connect(const std::shared_ptr<Engine>& engine, const JoinRequest& request);
  srn_status disconnect();
  // srn_session_delete: leaves silently, waits for an event callback on another thread.
  void close();

  // Null before the session is joined.
  std::shared_ptr<Connection> own_connection() const;

  srn_status publish(const std::shared_ptr<Publisher>& publisher);
  srn_status unpublish(const std::shared_ptr<Publisher>& publisher);
  srn_status subscribe(const std::shared_ptr<Subscriber>& subscriber);
  srn_status unsubscribe(const std::shared_ptr<Subscriber>& subscriber);

  void joined(const ConnectionInfo& own) override;
  void session_ended() override;
  void session_failed(int code, const std::string& text) override;
  void participant_joined(const ConnectionInfo& participant) override;
  void participant_left(const ConnectionInfo& participant) override;
  void stream_added(const StreamInfo& stream) override;
  void stream_removed(const StreamInfo& stream) override;

 private:
  // kLeaving lasts from the program's call until its answer is raised.
  enum class State { kIdle, kConnecting, kConnected, kLeaving, kOver };
  struct Bindings {
    std::vector<std::weak_ptr<Publication>> publications;
    std::vector<std::weak_ptr<Subscription>> subscriptions;
  };

  bool in_state(State state) const;
  // Posts an event that is raised only while the session is connected.
  void post_event(std::function<void()> raise);
  // Posts the last event; the first one wins. `raise` runs inside the gate.
  void post_last_event(std::function<void()> raise);
  Bindings take_bindings();
  void leave(const std::shared_ptr<Engine>& engine);

  const Context& context_;
  const std::string api_key_;
  const std::string session_id_;
  const srn_session_callbacks slots_;
  srn_session* handle_ = nullptr;  // set before the program knows the handle
  EventGate gate_;
  const std::shared_ptr<Strand> strand_;

  mutable common::Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::kIdle;
  std::shared_ptr<Engine> engine_ GUARDED_BY(mutex_);
  std::shared_ptr<Connection> own_ GUARDED_BY(mutex_);
  Bindings bindings_ GUARDED_BY(mutex_);
};

}  // namespace sarnet
