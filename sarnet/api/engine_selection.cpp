#include "api/engine_selection.h"

#include <sarnet/sarnet.h>

#include <utility>

#include "base/host_address.h"
#include "embedded/embedded_engine.h"
#include "plugins/relay_plugin.h"

namespace sarnet {
namespace {

// Stands in for an engine that does not exist.
class RefusingEngine : public Engine {
 public:
  RefusingEngine(int code, std::string text) : code_(code), text_(std::move(text)) {}

  void join(const JoinRequest&, std::shared_ptr<SessionSink> sink) override {
    sink->session_failed(code_, text_);
  }
  void leave() override {}
  std::shared_ptr<PublishedStream> publish(const PublishRequest&,
                                           std::shared_ptr<PublicationSink>) override {
    return nullptr;
  }
  void unpublish(const std::shared_ptr<PublishedStream>&) override {}
  void subscribe(const std::string&, std::shared_ptr<SubscriptionSink>) override {}
  void unsubscribe(const std::shared_ptr<SubscriptionSink>&) override {}

 private:
  const int code_;
  const std::string text_;
};

std::shared_ptr<Engine> relay_engine(const HostAddress& address) {
  if (!address.secure && !address.is_loopback()) {
    return std::make_shared<RefusingEngine>(
        SRN_SESSION_CONNECTION_REFUSED,
        "Connections in the clear are for this machine only, not for " + address.host);
  }
#if SARNET_RELAY
  std::string error;
  if (auto engine = make_relay_engine(address, error)) return engine;
  return std::make_shared<RefusingEngine>(SRN_SESSION_CONNECTION_FAILED, error);
#else
  return std::make_shared<RefusingEngine>(
      SRN_SESSION_CONNECTION_FAILED,
      "This library was built without the relay engine, so it cannot reach " + address.host);
#endif
}

}  // namespace

std::shared_ptr<Engine> select_engine(const std::string& host) {
  const auto address = parse_host(host);
  if (!address) return nullptr;
  if (address->kind == HostAddress::Kind::kRelay) return relay_engine(*address);
  return make_embedded_engine(address->scenario);
}

}  // namespace sarnet
