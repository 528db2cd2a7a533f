#include <json/writer.h>
#include <sarnet/sarnet_statistics.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "api/guard.h"
#include "session/library.h"

using sarnet::guarded_status;
using sarnet::kInvalid;
using sarnet::Library;

namespace {

srn_statistics collect() {
  auto& library = Library::instance();
  const auto& counters = library.counters;
  srn_statistics figures{};
  figures.capture_periods_written = counters.capture_periods;
  figures.capture_frames_written = counters.capture_frames;
  figures.capture_silence_periods = counters.capture_silence;
  figures.capture_gaps = counters.capture_pacing.gaps();
  figures.capture_underruns = counters.capture_underruns;
  figures.capture_lateness = counters.capture_pacing.lateness();
  figures.render_periods_read = counters.render_periods;
  figures.render_silent_periods = counters.render_silent;
  figures.mixer_delay_us = library.audio_device.render().delay_us();
  figures.frames_provided = counters.frames_provided;
  figures.frames_repeated = counters.frames_repeated;
  figures.frames_black = counters.frames_black;
  figures.frames_late = counters.frames_late;
  figures.frames_dropped = counters.frames_dropped;
  figures.audio_blocks_delivered = counters.audio.delivered;
  figures.audio_blocks_dropped = counters.audio.dropped;
  figures.pictures_delivered = counters.pictures.delivered;
  figures.pictures_dropped = counters.pictures.dropped;
  figures.captions_delivered = counters.captions.delivered;
  figures.captions_dropped = counters.captions.dropped;
  const auto times = [](const sarnet::CallbackMeter& meter) {
    return srn_callback_statistics{meter.waited.figures(), meter.took.figures()};
  };
  figures.audio_callbacks = times(counters.audio_callbacks);
  figures.picture_callbacks = times(counters.picture_callbacks);
  figures.caption_callbacks = times(counters.caption_callbacks);
  return figures;
}

srn_subscriber_statistics collect(sarnet::Subscriber& subscriber) {
  const auto& counters = subscriber.counters();
  return {0,
          counters.audio.delivered,
          counters.audio.dropped,
          counters.pictures.delivered,
          counters.pictures.dropped,
          counters.captions.delivered,
          counters.captions.dropped};
}

// Fills as much of the caller's record as it has room for, but for its size.
template <class Record>
void hand_over(Record figures, Record* target) {
  figures.size = target->size;
  std::memcpy(target, &figures, std::min(target->size, sizeof figures));
}

class JsonObject {
 public:
  void begin() { text_ += '{'; }
  void end() { text_ += '}'; }
  void key(const char* name) {
    if (text_.back() != '{' && text_.back() != '[') text_ += ',';
    text_ += '"';
    text_ += name;
    text_ += "\":";
  }
  template <class Number>
  void add(const char* name, Number value) {
    key(name);
    text_ += std::to_string(value);
  }
  void add_text(const char* name, const std::string& value) {
    key(name);
    text_ += Json::valueToQuotedString(value.c_str());
  }
  std::string& text() { return text_; }

 private:
  std::string text_;
};

std::string to_json() {
  const srn_statistics figures = collect();
  JsonObject json;
  const auto add_times = [&json](const std::string& name, const auto& times) {
    json.add((name + "_p50_us").c_str(), times.p50);
    json.add((name + "_p99_us").c_str(), times.p99);
    json.add((name + "_max_us").c_str(), times.max);
  };
  json.begin();
  json.key("capture");
  json.begin();
  json.add("periods_written", figures.capture_periods_written);
  json.add("frames_written", figures.capture_frames_written);
  json.add("silence_periods", figures.capture_silence_periods);
  json.add("gaps", figures.capture_gaps);
  json.add("underruns", figures.capture_underruns);
  add_times("lateness", figures.capture_lateness);
  json.end();
  json.key("render");
  json.begin();
  json.add("periods_read", figures.render_periods_read);
  json.add("silent_periods", figures.render_silent_periods);
  json.add("mixer_delay_us", figures.mixer_delay_us);
  json.end();
  json.key("video");
  json.begin();
  json.add("frames_provided", figures.frames_provided);
  json.add("frames_repeated", figures.frames_repeated);
  json.add("frames_black", figures.frames_black);
  json.add("frames_late", figures.frames_late);
  json.add("frames_dropped", figures.frames_dropped);
  json.end();
  const auto add_delivery = [&json](const auto& record) {
    json.add("audio_blocks_delivered", record.audio_blocks_delivered);
    json.add("audio_blocks_dropped", record.audio_blocks_dropped);
    json.add("pictures_delivered", record.pictures_delivered);
    json.add("pictures_dropped", record.pictures_dropped);
    json.add("captions_delivered", record.captions_delivered);
    json.add("captions_dropped", record.captions_dropped);
  };
  json.key("delivery");
  json.begin();
  add_delivery(figures);
  json.end();
  json.key("callbacks");
  json.begin();
  const auto add_callbacks = [&](const std::string& kind, const srn_callback_statistics& record) {
    add_times(kind + "_waited", record.waited);
    add_times(kind + "_took", record.took);
  };
  add_callbacks("audio", figures.audio_callbacks);
  add_callbacks("picture", figures.picture_callbacks);
  add_callbacks("caption", figures.caption_callbacks);
  json.end();
  json.key("subscribers");
  json.begin();
  for (const auto& subscriber : Library::instance().subscribers.all()) {
    json.key(subscriber->id().c_str());
    json.begin();
    json.add_text("stream", subscriber->stream().id);
    add_delivery(collect(*subscriber));
    json.end();
  }
  json.end();
  json.end();
  return std::move(json.text());
}

}  // namespace

extern "C" {

srn_status srn_statistics_get(struct srn_statistics* statistics) {
  if (statistics == nullptr || statistics->size < sizeof statistics->size) return kInvalid;
  return guarded_status("srn_statistics_get", [&] {
    hand_over(collect(), statistics);
    return SRN_SUCCESS;
  });
}

srn_status srn_statistics_get_subscriber(const srn_subscriber* subscriber,
                                         struct srn_subscriber_statistics* statistics) {
  if (statistics == nullptr || statistics->size < sizeof statistics->size) return kInvalid;
  return guarded_status("srn_statistics_get_subscriber", [&]() -> srn_status {
    const auto object = Library::instance().subscribers.find(subscriber);
    if (!object) return kInvalid;
    hand_over(collect(*object), statistics);
    return SRN_SUCCESS;
  });
}

size_t srn_statistics_json(char* buffer, size_t capacity) {
  return sarnet::guarded<size_t>("srn_statistics_json", 0, [&] {
    const std::string text = to_json();
    if (buffer != nullptr && capacity > 0) {
      const std::size_t length = std::min(text.size(), capacity - 1);
      std::memcpy(buffer, text.data(), length);
      buffer[length] = '\0';
    }
    return text.size();
  });
}

srn_status srn_statistics_reset(void) {
  Library::instance().counters.clear();
  return SRN_SUCCESS;
}

}  // extern "C"
