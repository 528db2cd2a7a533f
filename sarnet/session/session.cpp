#include "session/session.h"

#include <utility>

#include "base/log.h"
#include "session/publisher.h"
#include "session/subscriber.h"

namespace sarnet {
namespace {

template <class Weak, class Strong>
void remember(std::vector<std::weak_ptr<Weak>>& list, const std::shared_ptr<Strong>& binding) {
  std::erase_if(list, [](const auto& each) { return each.expired(); });
  list.push_back(binding);
}

}  // namespace

Session::Session(const Context& context, std::string api_key, std::string session_id,
                 const srn_session_callbacks& callbacks, SessionSettings settings)
    : context_(context),
      api_key_(std::move(api_key)),
      session_id_(std::move(session_id)),
      slots_(callbacks),
      strand_(std::make_shared<Strand>("srn-session")) {
  // Every engine has one server only.
  if (settings.migration) SARNET_LOG(kDebug, "Session " << session_id_ << " may migrate");
}

bool Session::in_state(State state) const {
  const common::LockGuard lock(mutex_);
  return state_ == state;
}

srn_status Session::connect(const std::shared_ptr<Engine>& engine, const JoinRequest& request) {
  const Strand::Hold hold(*strand_);
  {
    const common::LockGuard lock(mutex_);
    if (state_ != State::kIdle) return SRN_SESSION_ILLEGAL_STATE;
    state_ = State::kConnecting;
    engine_ = engine;
  }
  try {
    engine->join(request, shared_from_this());
  } catch (...) {
    engine->leave();
    const common::LockGuard lock(mutex_);
    state_ = State::kIdle;
    engine_.reset();
    throw;
  }
  return SRN_SUCCESS;
}

void Session::leave(const std::shared_ptr<Engine>& engine) {
  context_.audio_device.session_over(this);
  Bindings bindings = take_bindings();
  for (const auto& each : bindings.publications) {
    if (const auto publication = each.lock()) publication->end();
  }
  for (const auto& each : bindings.subscriptions) {
    if (const auto subscription = each.lock()) subscription->end();
  }
  if (engine) engine->leave();
}

Session::Bindings Session::take_bindings() {
  const common::LockGuard lock(mutex_);
  return std::exchange(bindings_, {});
}

srn_status Session::disconnect() {
  std::shared_ptr<Engine> engine;
  {
    const common::LockGuard lock(mutex_);
    if (state_ == State::kIdle || state_ == State::kOver) return SRN_SESSION_NOT_CONNECTED;
    if (state_ == State::kLeaving) return SRN_SUCCESS;
    state_ = State::kLeaving;
    engine = engine_;
  }
  leave(engine);
  session_ended();
  return SRN_SUCCESS;
}

void Session::close() {
  std::shared_ptr<Engine> engine;
  {
    const common::LockGuard lock(mutex_);
    state_ = State::kOver;
    engine = std::exchange(engine_, nullptr);
  }
  leave(engine);
  gate_.close();
  strand_->close();
}

std::shared_ptr<Connection> Session::own_connection() const {
  const common::LockGuard lock(mutex_);
  return state_ == State::kConnected ? own_ : nullptr;
}

srn_status Session::publish(const std::shared_ptr<Publisher>& publisher) {
  const Strand::Hold hold(*strand_);
  std::shared_ptr<Engine> engine;
  {
    const common::LockGuard lock(mutex_);
    if (state_ != State::kConnected) return SRN_SESSION_NOT_CONNECTED;
    engine = engine_;
  }
  const auto publication = publisher->bind(this, strand_, std::move(engine));
  if (!publication) return SRN_SESSION_ILLEGAL_STATE;
  {
    const common::LockGuard lock(mutex_);
    if (state_ == State::kConnected) {
      remember(bindings_.publications, publication);
      return SRN_SUCCESS;
    }
  }
  publication->end();
  return SRN_SESSION_NOT_CONNECTED;
}

srn_status Session::unpublish(const std::shared_ptr<Publisher>& publisher) {
  if (publisher->unbind(this)) return SRN_SUCCESS;
  return SRN_SESSION_PUBLISHER_NOT_FOUND;
}

srn_status Session::subscribe(const std::shared_ptr<Subscriber>& subscriber) {
  const Strand::Hold hold(*strand_);
  std::shared_ptr<Engine> engine;
  {
    const common::LockGuard lock(mutex_);
    if (state_ != State::kConnected) return SRN_SESSION_NOT_CONNECTED;
    engine = engine_;
  }
  const auto subscription = subscriber->bind(this, strand_, std::move(engine));
  if (!subscription) return SRN_SESSION_ILLEGAL_STATE;
  {
    const common::LockGuard lock(mutex_);
    if (state_ == State::kConnected) {
      remember(bindings_.subscriptions, subscription);
      return SRN_SUCCESS;
    }
  }
  subscription->end();
  return SRN_SESSION_NOT_CONNECTED;
}

srn_status Session::unsubscribe(const std::shared_ptr<Subscriber>& subscriber) {
  if (subscriber->unbind(this)) return SRN_SUCCESS;
  return SRN_SESSION_SUBSCRIBER_NOT_FOUND;
}

void Session::post_event(std::function<void()> raise) {
  strand_->post([self = shared_from_this(), raise = std::move(raise)] {
    if (!self->in_state(State::kConnected)) return;
    const EventGate::Pass pass(self->gate_);
    if (pass) raise();
  });
}

void Session::post_last_event(std::function<void()> raise) {
  strand_->post([self = shared_from_this(), raise = std::move(raise)] {
    std::shared_ptr<Engine> engine;
    {
      const common::LockGuard lock(self->mutex_);
      if (self->state_ == State::kIdle || self->state_ == State::kOver) return;
      self->state_ = State::kOver;
      engine = std::exchange(self->engine_, nullptr);
    }
    self->context_.audio_device.session_over(self.get());
    // Publishers and subscribers still bound are notified before the session.
    const Bindings bindings = self->take_bindings();
    for (const auto& each : bindings.publications) {
      if (const auto publication = each.lock()) publication->session_over();
    }
    for (const auto& each : bindings.subscriptions) {
      if (const auto subscription = each.lock()) subscription->session_over();
    }
    if (engine) engine->leave();
    const EventGate::Pass pass(self->gate_);
    if (pass) raise();
  });
}

void Session::joined(const ConnectionInfo& own) {
  strand_->post([self = shared_from_this(), own] {
    {
      const common::LockGuard lock(self->mutex_);
      if (self->state_ != State::kConnecting) return;
      self->state_ = State::kConnected;
      self->own_ = std::make_shared<Connection>(Connection{own});
    }
    {
      const EventGate::Pass pass(self->gate_);
      if (!pass) return;
      if (self->slots_.on_connected != nullptr) {
        self->slots_.on_connected(self->handle_, self->slots_.user_data);
      }
    }
    // Under the lock, so that a disconnection comes either before, or afterwards and undoes it.
    const common::LockGuard lock(self->mutex_);
    if (self->state_ == State::kConnected) {
      self->context_.audio_device.session_connected(self.get());
    }
  });
}

void Session::session_ended() {
  post_last_event([this] {
    if (slots_.on_disconnected != nullptr) slots_.on_disconnected(handle_, slots_.user_data);
  });
}

void Session::session_failed(int code, const std::string& text) {
  SARNET_LOG(kWarn, "Session " << session_id_ << " failed: " << code << ' ' << text);
  post_last_event([this, code, text] {
    if (slots_.on_error == nullptr) return;
    slots_.on_error(handle_, slots_.user_data, text.c_str(),
                    static_cast<srn_session_error_code>(code));
  });
}

void Session::participant_joined(const ConnectionInfo& participant) {
  post_event([this, participant] {
    if (slots_.on_connection_created == nullptr) return;
    const LentConnection connection(context_, participant);
    slots_.on_connection_created(handle_, slots_.user_data, connection.get());
  });
}

void Session::participant_left(const ConnectionInfo& participant) {
  post_event([this, participant] {
    if (slots_.on_connection_dropped == nullptr) return;
    const LentConnection connection(context_, participant);
    slots_.on_connection_dropped(handle_, slots_.user_data, connection.get());
  });
}

void Session::stream_added(const StreamInfo& stream) {
  post_event([this, stream] {
    if (slots_.on_stream_received == nullptr) return;
    const LentStream lent(context_, stream);
    slots_.on_stream_received(handle_, slots_.user_data, lent.get());
  });
}

void Session::stream_removed(const StreamInfo& stream) {
  post_event([this, stream] {
    if (slots_.on_stream_dropped == nullptr) return;
    const LentStream lent(context_, stream);
    slots_.on_stream_dropped(handle_, slots_.user_data, lent.get());
  });
}

}  // namespace sarnet
