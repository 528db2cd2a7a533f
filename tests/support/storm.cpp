// Media at a rate, from several delivery threads at once.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "frames.h"
#include "media.h"
#include "scripted_sarnet.h"

namespace scripted {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kChannels = 2;
constexpr size_t kPeriodFrames = 480;
// Pictures that differ, so that a view on recycled memory is seen.
constexpr int kPictures = 8;
constexpr auto kIdlePause = std::chrono::milliseconds{1};

// One kind of media for one stream, always on the same thread.
struct Feed {
  std::string stream_id;
  bool is_audio = false;
  Clock::duration period{};  // zero: without a pause
  Clock::time_point next{};
  unsigned sequence = 0;
};

class Storm {
 public:
  Storm(const std::vector<std::string>& stream_ids, double audio_rate, double video_rate,
        int32_t width, int32_t height, int threads) {
    for (int i = 0; i < kPictures; ++i) {
      scripted_frame_spec spec{};
      spec.format = SRN_VIDEO_FRAME_FORMAT_YUV420P;
      spec.width = width;
      spec.height = height;
      spec.fill = 31 * i;
      pictures_.push_back(makeFrame(spec));
    }
    std::vector<std::vector<Feed>> shares(static_cast<size_t>(threads));
    size_t turn = 0;
    const auto share = [&](const std::string& id, bool is_audio, double rate) {
      if (rate == 0.0) return;
      const auto period = rate < 0.0 ? Clock::duration{}
                                     : std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(1.0 / rate));
      shares[turn++ % shares.size()].push_back({id, is_audio, period, Clock::now(), 0});
    };
    for (const std::string& id : stream_ids) {
      share(id, true, audio_rate);
      share(id, false, video_rate);
    }
    for (auto& feeds : shares) {
      threads_.emplace_back([this, feeds = std::move(feeds)]() mutable { run(feeds); });
    }
  }

  long stop() {
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    stopped_.notify_all();
    for (std::thread& thread : threads_) thread.join();
    return delivered_.load();
  }

 private:
  void run(std::vector<Feed>& feeds) {
    std::vector<int16_t> samples(kChannels * kPeriodFrames);
    for (;;) {
      auto wake = Clock::now() + kIdlePause;
      bool pause = true;
      for (Feed& feed : feeds) {
        if (feed.period != Clock::duration{} && Clock::now() < feed.next) {
          wake = std::min(wake, feed.next);
          continue;
        }
        feed.next += feed.period;
        if (deliver(feed, samples)) {
          delivered_.fetch_add(1);
          pause = false;
        }
      }
      std::unique_lock lock(mutex_);
      if (stopping_) return;
      if (pause && stopped_.wait_until(lock, wake, [this] { return stopping_; })) return;
    }
  }

  bool deliver(Feed& feed, std::vector<int16_t>& samples) {
    const auto subscriber = subscriberOf(feed.stream_id.c_str());
    if (subscriber == nullptr) return false;
    const unsigned sequence = feed.sequence++;
    if (!feed.is_audio) return deliverFrame(*subscriber, pictures_[sequence % kPictures].get());
    // All samples of a block alike: a block that changes under a view is seen.
    samples.assign(samples.size(), static_cast<int16_t>(sequence % 32'768));
    const srn_audio_data data{samples.data(), 16, 48'000, kChannels, kPeriodFrames};
    return deliverAudio(*subscriber, &data);
  }

  std::vector<std::shared_ptr<srn_video_frame>> pictures_;
  std::atomic<long> delivered_{0};
  std::mutex mutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;  // joined by stop
};

struct Current {
  std::mutex mutex;
  Storm* storm = nullptr;
};

Current& current() {
  static Current* const instance = new Current;
  return *instance;
}

}  // namespace

long stopStorm() {
  Storm* storm = nullptr;
  {
    const std::lock_guard lock(current().mutex);
    std::swap(storm, current().storm);
  }
  if (storm == nullptr) return 0;
  const long delivered = storm->stop();
  delete storm;
  return delivered;
}

}  // namespace scripted

int scripted_storm_start(const char* stream_ids, double audio_per_second, double video_per_second,
                         int32_t width, int32_t height, int threads) {
  if (stream_ids == nullptr || threads < 1) return 0;
  scripted::stopStorm();
  std::vector<std::string> ids;
  std::istringstream in(stream_ids);
  for (std::string id; std::getline(in, id, ',');) ids.push_back(id);
  auto* const storm =
      new scripted::Storm(ids, audio_per_second, video_per_second, width, height, threads);
  const std::lock_guard lock(scripted::current().mutex);
  scripted::current().storm = storm;
  return 1;
}

long scripted_storm_stop(void) { return scripted::stopStorm(); }
