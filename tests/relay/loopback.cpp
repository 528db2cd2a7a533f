#include "relay/loopback.h"

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <future>

#include "relay/media/sdp/negotiation.h"
#include "relay/peer/services.h"

namespace loopback {

using namespace std::chrono_literals;
using sarnet::relay::PeerSettings;
using sarnet::relay::PublishingPeer;
using sarnet::relay::ReceivingPeer;

namespace {

constexpr int kBits = 16;
constexpr int kCell = 16;

// Of the peers of one call, which starts them on its loop and joins them at its end.
std::vector<std::thread> peer_threads;

void lend_services() {
  sarnet::relay::set_services(
      {.start_thread =
           [](const char*, std::function<void()> body) {
             peer_threads.emplace_back(std::move(body));
           },
       .log_enabled = [](sarnet::LogLevel level) { return level <= sarnet::LogLevel::kWarn; },
       .write_log = [](sarnet::LogLevel,
                       const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); }});
}

}  // namespace

void paint_number(sarnet::Picture& picture, int number) {
  const auto view = picture.mutable_view();
  for (int bit = 0; bit < kBits; ++bit) {
    for (int row = 0; row < kCell; ++row) {
      std::memset(view.y + std::ptrdiff_t{row} * view.stride_y + std::ptrdiff_t{bit} * kCell,
                  (number >> bit & 1) != 0 ? 235 : 16, kCell);
    }
  }
}

int read_number(const sarnet::Picture& picture) {
  const auto view = picture.view();
  int number = 0;
  for (int bit = 0; bit < kBits; ++bit) {
    const int luma = view.y[kCell / 2 * view.stride_y + bit * kCell + kCell / 2];
    if (luma > 90 && luma < 160) return -1;
    number |= (luma > 125 ? 1 : 0) << bit;
  }
  return number;
}

void Listener::on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) {
  const auto now = Clock::now();
  int peak = 0;
  for (const std::int16_t sample : samples) peak = std::max(peak, std::abs(int{sample}));
  {
    const std::lock_guard lock(mutex_);
    const int size = static_cast<int>(samples.size()) / format.channels;
    if (block_sizes.empty() || block_sizes.back() != size) block_sizes.push_back(size);
    if (blocks > 0) longest_silence = std::max(longest_silence, now - last_block_);
    if (peak > 4000) loud_blocks.push_back(blocks);
    channels = format.channels;
    ++blocks;
    block_times.push_back(now);
    last_block_ = now;
  }
  changed_.notify_all();
}

void Listener::on_picture(const PictureRef& picture) {
  {
    const std::lock_guard lock(mutex_);
    frames.push_back({read_number(*picture), picture->width(), picture->height(), Clock::now()});
  }
  changed_.notify_all();
}

void Listener::on_caption(std::string_view text, bool is_final) {
  {
    const std::lock_guard lock(mutex_);
    captions.emplace_back(text, is_final);
  }
  changed_.notify_all();
}

bool Listener::wait(const std::function<bool(const Listener&)>& condition,
                    std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [&] { return condition(*this); });
}

// Carries descriptions and candidates to the other peer.
class Call::Side : public sarnet::relay::PeerObserver {
 public:
  Side(Call& call, bool publishes) : call_(call), publishes_(publishes) {}

  void on_local_description(const std::string&, const std::string& sdp) override {
    if (publishes_) {
      call_.receiver_->set_remote_offer(call_.edit_offer ? call_.edit_offer(sdp) : sdp);
    } else {
      tell([&] { call_.answer_ = sdp; });
      call_.publisher_->set_remote_answer(sdp);
    }
  }
  void on_local_candidate(unsigned mline, const std::string& candidate) override {
    if (publishes_) {
      call_.receiver_->add_remote_candidate(mline, candidate);
    } else {
      call_.publisher_->add_remote_candidate(mline, candidate);
    }
  }
  void on_peer_connected() override {
    tell([this] { ++call_.connected_; });
  }
  void on_peer_interrupted() override {}
  void on_peer_failed(const std::string& reason) override {
    tell([&] { call_.failure_ = reason; });
  }

 private:
  void tell(const std::function<void()>& change) {
    const std::lock_guard lock(call_.mutex_);
    change();
    call_.changed_.notify_all();
  }
  Call& call_;
  const bool publishes_;
};

Call::Call(const sarnet::relay::PublishSettings& settings)
    : settings_(settings),
      publishing_(std::make_unique<Side>(*this, true)),
      receiving_(std::make_unique<Side>(*this, false)) {
  lend_services();
  thread_ = std::thread([loop = loop_] { loop->run(); });
}

void Call::start() {
  run([this] {
    const PeerSettings peer{
        .loop = loop_, .loopback = true, .jitter_ms = 200, .ice_servers = {}, .identity = nullptr};
    std::string error;
    receiver_ = ReceivingPeer::create(peer, listener_, *receiving_, error);
    publisher_ = PublishingPeer::create(peer, settings_, *publishing_, error);
    if (!receiver_ || !publisher_) throw std::runtime_error(error);
    publisher_->start();
  });
}

Call::~Call() {
  stop();
  loop_->quit();
  thread_.join();
  for (std::thread& each : std::exchange(peer_threads, {})) each.join();
}

void Call::stop() {
  if (!publisher_) return;
  run([this] {
    publisher_->stop();
    receiver_->stop();
    publisher_.reset();
    receiver_.reset();
  });
}

void Call::run(const std::function<void()>& task) {
  std::promise<void> done;
  loop_->post([&] {
    try {
      task();
      done.set_value();
    } catch (const std::exception&) {
      done.set_exception(std::current_exception());
    }
  });
  done.get_future().get();
}

bool Call::connected(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [this] { return connected_ >= 2 || !failure_.empty(); }) &&
         failure_.empty();
}

std::string Call::failure() {
  const std::lock_guard lock(mutex_);
  return failure_;
}

std::string Call::answered_codec() {
  sarnet::relay::sdp::Description description;
  std::string error;
  sarnet::relay::sdp::read_description(answer(), description, error);
  const auto* const section =
      sarnet::relay::sdp::find_section(description, sarnet::relay::sdp::Kind::kVideo);
  return section != nullptr ? section->codecs.front().name : "";
}

std::string Call::answer() {
  const std::lock_guard lock(mutex_);
  return answer_;
}

void Call::feed(const std::function<bool()>& until, std::chrono::seconds limit) {
  const int channels = settings_.stereo ? 2 : 1;
  std::vector<std::int16_t> samples(static_cast<std::size_t>(480 * channels));
  const auto start = Clock::now();
  int fed = 0;
  for (int period = 0; Clock::now() - start < limit && !until(); ++period) {
    std::this_thread::sleep_until(start + period * 10ms);
    if (settings_.has_audio) {
      const bool loud = blocks_sent_++ % 100 < 10;
      for (int i = 0; i < 480 * channels; ++i) {
        const int frame = i / channels;
        const double phase = 2 * M_PI * 1000 * frame / 48000.0;
        samples[static_cast<std::size_t>(i)] =
            static_cast<std::int16_t>(loud ? 16000 * std::sin(phase) : 0);
      }
      publisher_->on_audio({48000, channels}, samples);
    }
    if (settings_.has_video && period * settings_.fps / 100 >= fed) {
      ++fed;
      const PictureRef picture = pool_.acquire(width, height);
      if (!picture) continue;
      for (std::size_t i = 0; i < picture->size(); ++i) {
        picture->data()[i] =
            static_cast<std::uint8_t>(64 + (i + static_cast<std::size_t>(pictures_sent_) * 3) % 97);
      }
      paint_number(*picture, pictures_sent_);
      publisher_->on_picture(picture);
      ++pictures_sent_;
    }
  }
}

}  // namespace loopback
