#include <sarnet/sarnet_statistics.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

#include "api/border.h"
#include "api/library.h"

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

// Fills the caller's record as far as its size reaches; leaves the size itself alone.
template <class Record>
void hand_over(Record figures, Record* target) {
  figures.size = target->size;
  std::memcpy(target, &figures, std::min(target->size, sizeof figures));
}

using Json = nlohmann::ordered_json;

void add_times(Json& json, const std::string& name, const auto& times) {
  json[name + "_p50_us"] = times.p50;
  json[name + "_p99_us"] = times.p99;
  json[name + "_max_us"] = times.max;
}

Json times_of(const srn_callback_statistics& audio, const srn_callback_statistics& picture,
              const srn_callback_statistics& caption) {
  Json json;
  for (const auto& [kind, times] :
       {std::pair{"audio", &audio}, {"picture", &picture}, {"caption", &caption}}) {
    add_times(json, kind + std::string("_waited"), times->waited);
    add_times(json, kind + std::string("_took"), times->took);
  }
  return json;
}

template <class Record>
void add_delivery(Json& json, const Record& record) {
  json["audio_blocks_delivered"] = record.audio_blocks_delivered;
  json["audio_blocks_dropped"] = record.audio_blocks_dropped;
  json["pictures_delivered"] = record.pictures_delivered;
  json["pictures_dropped"] = record.pictures_dropped;
  json["captions_delivered"] = record.captions_delivered;
  json["captions_dropped"] = record.captions_dropped;
}

std::string to_json() {
  const srn_statistics figures = collect();
  Json json;
  json["capture"] = {{"periods_written", figures.capture_periods_written},
                     {"frames_written", figures.capture_frames_written},
                     {"silence_periods", figures.capture_silence_periods},
                     {"gaps", figures.capture_gaps},
                     {"underruns", figures.capture_underruns}};
  add_times(json["capture"], "lateness", figures.capture_lateness);
  json["render"] = {{"periods_read", figures.render_periods_read},
                    {"silent_periods", figures.render_silent_periods},
                    {"mixer_delay_us", figures.mixer_delay_us}};
  json["video"] = {{"frames_provided", figures.frames_provided},
                   {"frames_repeated", figures.frames_repeated},
                   {"frames_black", figures.frames_black},
                   {"frames_late", figures.frames_late},
                   {"frames_dropped", figures.frames_dropped}};
  add_delivery(json["delivery"], figures);
  json["callbacks"] =
      times_of(figures.audio_callbacks, figures.picture_callbacks, figures.caption_callbacks);
  Json& subscribers = json["subscribers"] = Json::object();
  for (const auto& subscriber : Library::instance().subscribers.all()) {
    Json& each = subscribers[subscriber->id()];
    each["stream"] = subscriber->stream().id;
    add_delivery(each, collect(*subscriber));
  }
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
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
  return sarnet::guarded_result<size_t>("srn_statistics_json", 0, [&] {
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
