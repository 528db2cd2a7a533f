#include "media.h"

#include <chrono>
#include <sstream>
#include <thread>

#include "events.h"
#include "frames.h"
#include "scripted_sarnet.h"
#include "strand.h"

namespace scripted {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kRate = 48'000;
constexpr size_t kChannels = 2;
constexpr size_t kPeriodFrames = 480;
constexpr int32_t kBits = 16;

std::atomic<bool> on_delivery_threads{false};

// One call of the slot on this thread, one at a time of each kind for a subscriber. False when the
// subscriber takes none (any more) or the slot is null. A delete does not wait for the call.
template <class Slot, class... Arguments>
bool deliver(srn_subscriber& subscriber, std::mutex& turn, Slot slot, Arguments... arguments) {
  const auto function = subscriber.table.*slot;
  if (function == nullptr) return false;
  const std::lock_guard lock(turn);
  if (!subscriber.gate.open()) return false;
  const auto gap = delayOf(Event::media_gap);
  if (gap.count() != 0) std::this_thread::sleep_for(gap);
  function(&subscriber, subscriber.table.user_data, arguments...);
  return true;
}

bool deliverAudio(srn_subscriber& subscriber, const srn_audio_data* data) {
  return deliver(subscriber, subscriber.audio_turn, &srn_subscriber_callbacks::on_audio_data, data);
}

bool deliverFrame(srn_subscriber& subscriber, const srn_video_frame* frame) {
  return deliver(subscriber, subscriber.frame_turn, &srn_subscriber_callbacks::on_render_frame,
                 frame);
}

// Here, or handed to a delivery thread.
template <class Deliver>
int hand(const char* stream_id, Strand& strand, Deliver deliver) {
  auto subscriber = subscriberOf(stream_id);
  if (subscriber == nullptr) return 0;
  if (!on_delivery_threads.load()) return deliver(*subscriber) ? 1 : 0;
  strand.post([subscriber = std::move(subscriber), deliver] { deliver(*subscriber); });
  return 1;
}

// Runs `count` deliveries on a new thread, so that their cost is not the test program's.
template <class Deliver>
double fire(const char* stream_id, long count, Deliver deliver) {
  const auto subscriber = subscriberOf(stream_id);
  if (subscriber == nullptr) return -1.0;
  Clock::duration took{};
  long delivered = 0;
  std::thread([&] {
    const auto start = Clock::now();
    for (long i = 0; i < count; ++i) delivered += deliver(*subscriber) ? 1 : 0;
    took = Clock::now() - start;
  }).join();
  if (delivered == 0) return -1.0;
  return std::chrono::duration<double, std::nano>(took).count() / static_cast<double>(count);
}

// 10 ms of sound, all samples equal: shows a block that changes under a view.
struct Block {
  explicit Block(int16_t sample) : samples(kChannels * kPeriodFrames, sample) {}
  std::vector<int16_t> samples;
  srn_audio_data data{samples.data(), kBits, kRate, kChannels, kPeriodFrames};
};

std::shared_ptr<srn_video_frame> picture(int32_t width, int32_t height, int fill) {
  scripted_frame_spec spec{};
  spec.format = SRN_VIDEO_FRAME_FORMAT_YUV420P;
  spec.width = width;
  spec.height = height;
  spec.fill = fill;
  return makeFrame(spec);
}

class Storm {
 public:
  struct Form {
    double audio_rate;
    double video_rate;
    int32_t width;
    int32_t height;
  };

  Storm(const std::vector<std::string>& stream_ids, const Form& form, int threads) : form_(form) {
    for (int i = 0; i < kVariants; ++i) {
      pictures_.push_back(picture(form.width, form.height, 31 * i));
      blocks_.push_back(std::make_unique<Block>(static_cast<int16_t>(1 + i)));
    }
    std::vector<std::vector<Feed>> shares(static_cast<size_t>(threads));
    size_t turn = 0;
    for (const std::string& id : stream_ids) {
      if (form.audio_rate != 0) shares[turn++ % shares.size()].push_back({id, true});
      if (form.video_rate != 0) shares[turn++ % shares.size()].push_back({id, false});
    }
    for (auto& feeds : shares) {
      threads_.emplace_back([this, feeds = std::move(feeds)]() mutable { run(feeds); });
    }
  }

  long stop() {
    stopping_.store(true);
    for (std::thread& thread : threads_) thread.join();
    return delivered_.load();
  }

 private:
  // One kind of media for one stream, always on the same thread.
  struct Feed {
    std::string stream_id;
    bool is_audio;
    double due = 0;
    unsigned sequence = 0;
  };

  void run(std::vector<Feed>& feeds) {
    auto tick = Clock::now();
    while (!stopping_.load()) {
      bool paused = true;
      for (Feed& feed : feeds) {
        const double rate = feed.is_audio ? form_.audio_rate : form_.video_rate;
        const auto subscriber = subscriberOf(feed.stream_id.c_str());
        feed.due += rate < 0 ? 1 : rate * std::chrono::duration<double>(kTick).count();
        for (; feed.due >= 1; feed.due -= 1) {
          if (subscriber == nullptr || !deliver(*subscriber, feed)) continue;
          delivered_.fetch_add(1);
          paused = paused && rate > 0;
        }
      }
      if (paused) std::this_thread::sleep_until(tick += kTick);
    }
  }

  bool deliver(srn_subscriber& subscriber, Feed& feed) {
    const size_t variant = feed.sequence++ % kVariants;
    return feed.is_audio ? deliverAudio(subscriber, &blocks_[variant]->data)
                         : deliverFrame(subscriber, pictures_[variant].get());
  }

  static constexpr std::chrono::milliseconds kTick{10};
  // Differs from one event to the next, to show a view on recycled memory.
  static constexpr int kVariants = 8;

  const Form form_;
  std::vector<std::shared_ptr<srn_video_frame>> pictures_;
  std::vector<std::unique_ptr<Block>> blocks_;
  std::atomic<long> delivered_{0};
  std::atomic<bool> stopping_{false};
  std::vector<std::thread> threads_;  // joined by stop
};

std::mutex current_mutex;
std::unique_ptr<Storm>* current = new std::unique_ptr<Storm>;  // never destroyed

}  // namespace

long stopStorm() {
  std::unique_ptr<Storm> storm;
  {
    const std::lock_guard lock(current_mutex);
    storm.swap(*current);
  }
  return storm == nullptr ? 0 : storm->stop();
}

void resetMedia() {
  stopStorm();
  on_delivery_threads.store(false);
}

}  // namespace scripted

using scripted::hand;
using scripted::strands;

void scripted_media_on_delivery_threads(int on) { scripted::on_delivery_threads.store(on != 0); }

int scripted_audio(const char* stream_id, const int16_t* samples, size_t channels, size_t frames,
                   int32_t rate) {
  const bool has_samples = samples != nullptr;
  std::vector<int16_t> copy;
  if (has_samples) copy.assign(samples, samples + channels * frames);
  return hand(stream_id, strands().audio, [=](srn_subscriber& subscriber) {
    const srn_audio_data data{has_samples ? copy.data() : nullptr, scripted::kBits, rate, channels,
                              frames};
    return scripted::deliverAudio(subscriber, &data);
  });
}

int scripted_audio_null(const char* stream_id) {
  return hand(stream_id, strands().audio, [](srn_subscriber& subscriber) {
    return scripted::deliverAudio(subscriber, nullptr);
  });
}

int scripted_caption(const char* stream_id, const char* text, int32_t is_final) {
  const auto copy = scripted::text(text);
  return hand(stream_id, strands().captions, [copy, is_final](srn_subscriber& subscriber) {
    return scripted::deliver(subscriber, subscriber.caption_turn,
                             &srn_subscriber_callbacks::on_caption_text, scripted::given(copy),
                             is_final);
  });
}

int scripted_frame(const char* stream_id, const struct scripted_frame_spec* spec) {
  return hand(stream_id, strands().frames, [copy = *spec](srn_subscriber& subscriber) {
    return scripted::deliverFrame(subscriber, scripted::makeFrame(copy).get());
  });
}

int scripted_frame_null(const char* stream_id) {
  return hand(stream_id, strands().frames, [](srn_subscriber& subscriber) {
    return scripted::deliverFrame(subscriber, nullptr);
  });
}

double scripted_fire_audio(const char* stream_id, long count) {
  const scripted::Block block(1000);
  return scripted::fire(stream_id, count, [&block](srn_subscriber& subscriber) {
    return scripted::deliverAudio(subscriber, &block.data);
  });
}

double scripted_fire_frames(const char* stream_id, long count, int32_t width, int32_t height) {
  const auto frame = scripted::picture(width, height, 0);
  return scripted::fire(stream_id, count, [&frame](srn_subscriber& subscriber) {
    return scripted::deliverFrame(subscriber, frame.get());
  });
}

int scripted_storm_start(const char* stream_ids, double audio_per_second, double video_per_second,
                         int32_t width, int32_t height, int threads) {
  scripted::stopStorm();
  std::vector<std::string> ids;
  std::istringstream in(stream_ids);
  for (std::string id; std::getline(in, id, ',');) ids.push_back(id);
  const scripted::Storm::Form form{audio_per_second, video_per_second, width, height};
  const std::lock_guard lock(scripted::current_mutex);
  *scripted::current = std::make_unique<scripted::Storm>(ids, form, threads);
  return 1;
}

long scripted_storm_stop(void) { return scripted::stopStorm(); }
