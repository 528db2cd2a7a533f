#include "media.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "answers.h"
#include "frames.h"
#include "script.h"
#include "scripted_sarnet.h"
#include "strand.h"

namespace scripted {
namespace {

constexpr int32_t kRate = 48'000;
constexpr size_t kChannels = 2;
constexpr size_t kPeriodFrames = 480;
constexpr int32_t kBits = 16;

std::atomic<bool> on_delivery_threads{false};

template <class Call>
bool deliver(srn_subscriber& subscriber, std::mutex& turn, Call call) {
  const std::lock_guard lock(turn);
  if (!subscriber.gate.open()) return false;
  const auto gap = delayOf(Event::media_gap);
  if (gap.count() != 0) std::this_thread::sleep_for(gap);
  call();
  return true;
}

// Here, or copied to a delivery thread.
template <class Deliver>
int hand(const char* stream_id, Strand& strand, Deliver deliver) {
  auto subscriber = subscriberOf(stream_id);
  if (subscriber == nullptr) return 0;
  if (!on_delivery_threads.load()) return deliver(*subscriber) ? 1 : 0;
  strand.post([subscriber = std::move(subscriber), deliver] { deliver(*subscriber); });
  return 1;
}

// Runs `count` deliveries on a new thread: what they cost is not the test program's.
template <class Deliver>
double fire(const char* stream_id, long count, Deliver deliver) {
  const auto subscriber = subscriberOf(stream_id);
  if (subscriber == nullptr || count <= 0) return -1.0;
  std::chrono::steady_clock::duration took{};
  long delivered = 0;
  std::thread([&] {
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < count; ++i) delivered += deliver(*subscriber) ? 1 : 0;
    took = std::chrono::steady_clock::now() - start;
  }).join();
  if (delivered == 0) return -1.0;
  return std::chrono::duration<double, std::nano>(took).count() / static_cast<double>(count);
}

srn_audio_data audioRecord(const int16_t* samples, size_t channels, size_t frames, int32_t rate) {
  return {samples, kBits, rate, channels, frames};
}

}  // namespace

bool deliverAudio(srn_subscriber& subscriber, const srn_audio_data* data) {
  const auto slot = subscriber.table.on_audio_data;
  return slot != nullptr && deliver(subscriber, subscriber.audio_turn,
                                    [&] { slot(&subscriber, subscriber.table.user_data, data); });
}

bool deliverFrame(srn_subscriber& subscriber, const srn_video_frame* frame) {
  const auto slot = subscriber.table.on_render_frame;
  return slot != nullptr && deliver(subscriber, subscriber.frame_turn,
                                    [&] { slot(&subscriber, subscriber.table.user_data, frame); });
}

bool deliverCaption(srn_subscriber& subscriber, const char* text, srn_bool is_final) {
  const auto slot = subscriber.table.on_caption_text;
  return slot != nullptr && deliver(subscriber, subscriber.caption_turn, [&] {
           slot(&subscriber, subscriber.table.user_data, text, is_final);
         });
}

void resetMedia() {
  stopStorm();
  on_delivery_threads.store(false);
}

}  // namespace scripted

void scripted_media_on_delivery_threads(int on) { scripted::on_delivery_threads.store(on != 0); }

int scripted_audio(const char* stream_id, const int16_t* samples, size_t channels, size_t frames,
                   int32_t rate) {
  const bool has_samples = samples != nullptr;
  std::vector<int16_t> copy;
  if (has_samples) copy.assign(samples, samples + channels * frames);
  return scripted::hand(stream_id, scripted::strands().audio,
                        [copy, has_samples, channels, frames, rate](srn_subscriber& subscriber) {
                          const srn_audio_data data = scripted::audioRecord(
                              has_samples ? copy.data() : nullptr, channels, frames, rate);
                          return scripted::deliverAudio(subscriber, &data);
                        });
}

int scripted_audio_null(const char* stream_id) {
  return scripted::hand(stream_id, scripted::strands().audio, [](srn_subscriber& subscriber) {
    return scripted::deliverAudio(subscriber, nullptr);
  });
}

int scripted_caption(const char* stream_id, const char* text, int32_t is_final) {
  return scripted::hand(stream_id, scripted::strands().captions,
                        [copy = scripted::Text(text), is_final](srn_subscriber& subscriber) {
                          return scripted::deliverCaption(subscriber, copy.get(), is_final);
                        });
}

int scripted_frame(const char* stream_id, const struct scripted_frame_spec* spec) {
  if (spec == nullptr) return 0;
  return scripted::hand(stream_id, scripted::strands().frames,
                        [copy = *spec](srn_subscriber& subscriber) {
                          const auto frame = scripted::makeFrame(copy);
                          return scripted::deliverFrame(subscriber, frame.get());
                        });
}

int scripted_frame_null(const char* stream_id) {
  return scripted::hand(stream_id, scripted::strands().frames, [](srn_subscriber& subscriber) {
    return scripted::deliverFrame(subscriber, nullptr);
  });
}

double scripted_fire_audio(const char* stream_id, long count) {
  const std::vector<int16_t> samples(scripted::kChannels * scripted::kPeriodFrames, 1000);
  const srn_audio_data data = scripted::audioRecord(samples.data(), scripted::kChannels,
                                                    scripted::kPeriodFrames, scripted::kRate);
  return scripted::fire(stream_id, count, [&data](srn_subscriber& subscriber) {
    return scripted::deliverAudio(subscriber, &data);
  });
}

double scripted_fire_frames(const char* stream_id, long count, int32_t width, int32_t height) {
  scripted_frame_spec spec{};
  spec.format = SRN_VIDEO_FRAME_FORMAT_YUV420P;
  spec.width = width;
  spec.height = height;
  const auto frame = scripted::makeFrame(spec);
  return scripted::fire(stream_id, count, [&frame](srn_subscriber& subscriber) {
    return scripted::deliverFrame(subscriber, frame.get());
  });
}

double scripted_fire_captions(const char* stream_id, long count) {
  return scripted::fire(stream_id, count, [](srn_subscriber& subscriber) {
    return scripted::deliverCaption(subscriber, "a caption of ordinary length", SRN_TRUE);
  });
}
