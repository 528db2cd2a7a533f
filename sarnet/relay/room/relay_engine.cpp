#include "relay/room/relay_engine.h"

#include <sarnet/sarnet.h>

#include <atomic>
#include <utility>

#include "common/mutex.h"
#include "relay/peer/peer.h"
#include "relay/peer/services.h"
#include "relay/room/relay_session.h"
#include "relay/room/relay_settings.h"
#include "relay/signalling/main_loop.h"

namespace sarnet::relay {
namespace {

// Kept alive by the loop's thread: the session ends on it, before the loop is destroyed.
struct Participation {
  const std::shared_ptr<MainLoop> loop = std::make_shared<MainLoop>();
  const std::shared_ptr<std::atomic<bool>> left = std::make_shared<std::atomic<bool>>(false);
  std::unique_ptr<RelaySession> session;
};

class RelayEngine : public Engine {
 public:
  RelayEngine(HostAddress address, JanusSettings client)
      : address_(std::move(address)), client_(std::move(client)) {}
  ~RelayEngine() override { leave(); }
  RelayEngine(const RelayEngine&) = delete;
  RelayEngine& operator=(const RelayEngine&) = delete;

  void join(const JoinRequest& request, std::shared_ptr<SessionSink> sink) override {
    auto participation = std::make_shared<Participation>();
    participation->session = std::make_unique<RelaySession>(
        participation->loop, participation->left, relay_settings(address_, request.port), request,
        std::move(sink), client_);
    const common::LockGuard lock(mutex_);
    if (left_) return;
    services().start_thread("srn-relay", [participation] {
      participation->loop->run();
      participation->session.reset();
    });
    participation_ = participation;
    post([](RelaySession& session) { session.join(); });
  }

  void leave() override {
    const common::LockGuard lock(mutex_);
    left_ = true;
    if (!participation_) return;
    *participation_->left = true;
    post([loop = participation_->loop](RelaySession& session) {
      session.leave([loop] { loop->quit(); });
    });
    participation_.reset();
  }

  std::shared_ptr<PublishedStream> publish(const PublishRequest& request,
                                           std::shared_ptr<PublicationSink> sink) override {
    const common::LockGuard lock(mutex_);
    if (!participation_) return nullptr;
    auto feed = std::make_shared<PublishedFeed>();
    post([request, feed, sink = std::move(sink)](RelaySession& session) {
      session.publish(request, feed, sink);
    });
    return feed;
  }

  void unpublish(const std::shared_ptr<PublishedStream>& stream) override {
    const common::LockGuard lock(mutex_);
    post([stream](RelaySession& session) { session.unpublish(stream.get()); });
  }

  void subscribe(const std::string& stream_id, std::shared_ptr<SubscriptionSink> sink) override {
    const common::LockGuard lock(mutex_);
    if (!participation_) return;
    auto switchable = std::make_shared<SwitchableSink>(std::move(sink), participation_->left);
    post([stream_id, switchable](RelaySession& session) {
      session.subscribe(stream_id, switchable);
    });
  }

  void prefer(const std::shared_ptr<SubscriptionSink>& sink,
              const MediaPreferences& preferences) override {
    const common::LockGuard lock(mutex_);
    post([sink, preferences](RelaySession& session) { session.prefer(sink.get(), preferences); });
  }

  void unsubscribe(const std::shared_ptr<SubscriptionSink>& sink) override {
    const common::LockGuard lock(mutex_);
    post([sink](RelaySession& session) { session.unsubscribe(sink.get()); });
  }

 private:
  // The thread keeps the participation while its loop runs, so the pointers stay valid.
  template <class Task>
  void post(Task task) REQUIRES(mutex_) {
    if (!participation_) return;
    participation_->loop->post(
        [session = participation_->session.get(), task = std::move(task)] { task(*session); });
  }

  const HostAddress address_;
  const JanusSettings client_;
  common::Mutex mutex_;
  std::shared_ptr<Participation> participation_ GUARDED_BY(mutex_);
  bool left_ GUARDED_BY(mutex_) = false;
};

}  // namespace

std::shared_ptr<Engine> make_engine(const HostAddress& address) {
  return std::make_shared<RelayEngine>(address, JanusSettings{});
}

std::shared_ptr<Engine> make_engine(const HostAddress& address, const JanusSettings& client) {
  return std::make_shared<RelayEngine>(address, client);
}

}  // namespace sarnet::relay
