#include "relay/media/transport/sctp_stack.h"

#include <usrsctp.h>

#include <atomic>
#include <chrono>
#include <unordered_map>
#include <utility>

namespace sarnet::relay {
namespace {

using Clock = std::chrono::steady_clock;

// Fine enough for delayed acknowledgements, 200 ms, and repetitions, 1 s at least.
constexpr std::chrono::milliseconds kTick{100};

// Those to whom the stack's packets go. Never destroyed, as the stack is not.
struct Outboxes {
  std::mutex mutex;
  std::unordered_map<void*, std::shared_ptr<SctpOutbox>> by_address;
  std::uintptr_t last = 0;
};

Outboxes& outboxes() {
  static auto* const all = new Outboxes;
  return *all;
}

// Called by the stack, with locks of its own held.
int send_packet(void* address, void* packet, std::size_t size, std::uint8_t, std::uint8_t) {
  std::shared_ptr<SctpOutbox> outbox;
  {
    Outboxes& all = outboxes();
    const std::lock_guard lock(all.mutex);
    const auto found = all.by_address.find(address);
    if (found != all.by_address.end()) outbox = found->second;
  }
  if (outbox) outbox->add(packet, size);
  return 0;
}

void set_up() {
  usrsctp_init_nothreads(0, &send_packet, nullptr);
  // Of use between hosts alone, not in a tunnel.
  usrsctp_sysctl_set_sctp_ecn_enable(0);
  usrsctp_sysctl_set_sctp_asconf_enable(0);
  usrsctp_sysctl_set_sctp_auth_enable(0);
  // The associations would answer packets that belong to none with packets of their own.
  usrsctp_sysctl_set_sctp_blackhole(2);
}

}  // namespace

void SctpOutbox::add(const void* packet, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(packet);
  const std::lock_guard lock(mutex_);
  packets_.emplace_back(bytes, bytes + size);
  if (!attended_ && !std::exchange(asked_, true)) loop_->post(flush_);
}

std::vector<std::vector<std::uint8_t>> SctpOutbox::take() {
  const std::lock_guard lock(mutex_);
  asked_ = false;
  return std::exchange(packets_, {});
}

bool SctpOutbox::empty() {
  const std::lock_guard lock(mutex_);
  return packets_.empty();
}

void SctpOutbox::attend(bool attended) {
  const std::lock_guard lock(mutex_);
  attended_ = attended;
}

namespace sctp_stack {

class Ticker {
 public:
  explicit Ticker(const MainLoop& loop)
      : timer_(
            loop, kTick, [] { tick(); }, true) {}

 private:
  // Each loop ticks; of several the first does the work.
  static void tick() {
    static std::atomic<bool> running{false};
    static Clock::time_point last = Clock::now();
    if (running.exchange(true, std::memory_order_acquire)) return;
    const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last);
    if (passed >= kTick * 9 / 10) {
      last += passed;
      // After a pause without associations there is nothing to make up for.
      usrsctp_handle_timers(static_cast<std::uint32_t>(std::min(passed, 10 * kTick).count()));
    }
    running.store(false, std::memory_order_release);
  }

  MainLoop::Timer timer_;
};

void* register_outbox(const std::shared_ptr<SctpOutbox>& outbox) {
  static std::once_flag once;
  std::call_once(once, &set_up);
  void* address = nullptr;
  {
    Outboxes& all = outboxes();
    const std::lock_guard lock(all.mutex);
    // A number that was never used before: the stack may still speak of one that has gone.
    address = reinterpret_cast<void*>(++all.last);  // NOLINT(performance-no-int-to-ptr)
    all.by_address.emplace(address, outbox);
  }
  usrsctp_register_address(address);
  return address;
}

void withdraw_outbox(void* address) {
  usrsctp_deregister_address(address);
  std::shared_ptr<SctpOutbox> gone;  // released without the lock
  Outboxes& all = outboxes();
  const std::lock_guard lock(all.mutex);
  const auto found = all.by_address.find(address);
  if (found == all.by_address.end()) return;
  gone = std::move(found->second);
  all.by_address.erase(found);
}

std::shared_ptr<Ticker> ticker(const std::shared_ptr<MainLoop>& loop) {
  static std::mutex mutex;
  static auto* const by_loop = new std::unordered_map<const MainLoop*, std::weak_ptr<Ticker>>;
  const std::lock_guard lock(mutex);
  std::erase_if(*by_loop, [](const auto& each) { return each.second.expired(); });
  std::weak_ptr<Ticker>& known = (*by_loop)[loop.get()];
  std::shared_ptr<Ticker> ticker = known.lock();
  if (!ticker) {
    ticker = std::make_shared<Ticker>(*loop);
    known = ticker;
  }
  return ticker;
}

}  // namespace sctp_stack

}  // namespace sarnet::relay
