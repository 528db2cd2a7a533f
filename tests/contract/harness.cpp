#include "contract/harness.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <numbers>
#include <stdexcept>

namespace {

std::atomic<int> info_requests{0};

}  // namespace

extern "C" {

struct snt_device_info {
  const char* texts[5];
  void (*stats_callback)(void);
  char device_cannot_do_simulcast;
};

// The library finds this by its name and frees what it gets; the last text is left out on purpose.
__attribute__((visibility("default"))) snt_device_info* srn_get_device_info(void) {
  ++info_requests;
  auto* const info = static_cast<snt_device_info*>(std::calloc(1, sizeof(snt_device_info)));
  for (int text = 0; text < 4; ++text) info->texts[text] = strdup("test");
  info->device_cannot_do_simulcast = 'n';
  return info;
}
}

namespace contract {

int device_info_requests() { return info_requests; }

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

namespace {

Participant& participant(void* user_data) { return *static_cast<Participant*>(user_data); }
Sender& sender(void* user_data) { return *static_cast<Sender*>(user_data); }
srn_bool srn(bool value) { return value ? SRN_TRUE : SRN_FALSE; }

std::string setting(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

// Takes connections and never says a word.
std::string silent_host() {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener, any, size) != 0 || ::listen(listener, 8) != 0 ||
      ::getsockname(listener, any, &size) != 0) {
    std::abort();
  }
  return "ws://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

std::string numbered(int code, const char* text) {
  return "error " + std::to_string(code) + ' ' + text;
}

void note(Journal& log, const std::string& event, const std::function<void()>& hook) {
  log.add(event);
  if (hook) hook();
}

}  // namespace

bool on_server() { return !setting("SARNET_TEST_HOST").empty(); }

Place companions_place() {
  if (!on_server()) return {"api.sarnet.localhost", "session", "token"};
  return {setting("SARNET_TEST_HOST"), setting("SARNET_TEST_ROOM"), setting("SARNET_TEST_TOKEN")};
}

Place empty_place() {
  static const ScenarioFile nobody("{}");
  static std::atomic<int> number{0};
  Place place = on_server() ? companions_place() : nobody.place();
  place.session = "place " + std::to_string(++number);
  return place;
}

Place silent_place() {
  if (!on_server()) {
    static const ScenarioFile slow(R"({"join_delay_ms": 60000})");
    return slow.place();
  }
  static const std::string host = silent_host();
  return {host, "session", "token"};
}

Participant::Participant(Place place) : place_(std::move(place)) {
  callbacks_.user_data = this;
  callbacks_.on_connected = [](srn_session*, void* data) {
    note(participant(data).log, "connected", participant(data).on_connected);
  };
  callbacks_.on_disconnected = [](srn_session*, void* data) {
    note(participant(data).log, "disconnected", participant(data).on_disconnected);
  };
  callbacks_.on_connection_created = [](srn_session*, void* data, const srn_connection* who) {
    participant(data).log.add(std::string("connection+ ") + srn_connection_get_id(who));
  };
  callbacks_.on_connection_dropped = [](srn_session*, void* data, const srn_connection* who) {
    participant(data).log.add(std::string("connection- ") + srn_connection_get_id(who));
  };
  callbacks_.on_stream_received = [](srn_session*, void* data, const srn_stream* stream) {
    Participant& self = participant(data);
    {
      const std::lock_guard lock(self.mutex_);
      self.streams_.push_back(std::make_shared<StreamCopy>(stream));
    }
    self.log.add(std::string("stream+ ") + srn_stream_get_id(stream));
    if (self.on_stream_received) self.on_stream_received(stream);
  };
  callbacks_.on_stream_dropped = [](srn_session*, void* data, const srn_stream* stream) {
    participant(data).log.add(std::string("stream- ") + srn_stream_get_id(stream));
  };
  callbacks_.on_error = [](srn_session*, void* data, const char* text,
                           enum srn_session_error_code code) {
    participant(data).log.add(numbered(code, text));
  };
  handle = srn_session_new_with_settings("key", place_.session.c_str(), &callbacks_,
                                         srn_session_settings_new());
}

std::shared_ptr<StreamCopy> Participant::wait_for_stream(std::size_t number) {
  if (!log.await("stream+", static_cast<long>(number))) throw std::runtime_error("no stream");
  const std::lock_guard lock(mutex_);
  return streams_[number - 1];
}

bool Picture::is(int value) const {
  const int lost = on_server() ? 4 : 0;
  return !bytes.empty() && std::ranges::all_of(bytes, [=](std::uint8_t byte) {
    return std::abs(byte - value) <= lost;
  });
}

template <class Use>
void Receiver::visit(void* door, Use use) {
  auto& open = *static_cast<Door*>(door);
  const std::shared_lock lock(open.mutex);
  if (open.receiver != nullptr) use(*open.receiver);
}

Receiver::Receiver(const srn_stream* stream, Wants wants)
    : door_([this]() -> Door& {
        static auto* const doors = new std::deque<Door>;  // for callbacks however late
        static std::mutex mutex;
        const std::lock_guard lock(mutex);
        Door& door = doors->emplace_back();
        door.receiver = this;
        return door;
      }()) {
  srn_subscriber_callbacks callbacks{};
  callbacks.user_data = &door_;
  callbacks.on_connected = [](srn_subscriber*, void* data, const srn_stream*) {
    visit(data, [](Receiver& self) { note(self.log, "connected", self.on_connected); });
  };
  callbacks.on_disconnected = [](srn_subscriber*, void* data) {
    visit(data, [](Receiver& self) { self.log.add("disconnected"); });
  };
  callbacks.on_error = [](srn_subscriber*, void* data, const char* text,
                          enum srn_subscriber_error_code code) {
    visit(data, [=](Receiver& self) { self.log.add(numbered(code, text)); });
  };
  if (wants.audio) {
    callbacks.on_audio_data = [](srn_subscriber*, void* data, const srn_audio_data* audio) {
      visit(data, [audio](Receiver& self) { self.take(*audio); });
    };
  }
  if (wants.video) {
    callbacks.on_render_frame = [](srn_subscriber*, void* data, const srn_video_frame* frame) {
      visit(data, [frame](Receiver& self) { self.take(frame); });
    };
  }
  if (wants.captions) {
    callbacks.on_caption_text = [](srn_subscriber*, void* data, const char* text, srn_bool final) {
      visit(data, [=](Receiver& self) {
        self.log.add(std::string(final == SRN_TRUE ? "caption " : "draft ") + text);
      });
    };
  }
  handle = srn_subscriber_new(stream, &callbacks);
  srn_subscriber_set_subscribe_to_audio(handle, srn(wants.audio));
  srn_subscriber_set_subscribe_to_video(handle, srn(wants.video));
  srn_subscriber_set_subscribe_to_captions(handle, srn(wants.captions));
}

Receiver::~Receiver() {
  remove();
  const std::unique_lock lock(door_.mutex);
  door_.receiver = nullptr;
}

void Receiver::take(const srn_audio_data& data) {
  {
    const std::lock_guard lock(mutex_);
    const auto* const samples = static_cast<const std::int16_t*>(data.sample_buffer);
    samples_.insert(samples_.end(), samples,
                    samples + data.number_of_samples * data.number_of_channels);
  }
  ++audio_blocks_;
  if (on_audio) on_audio();
}

void Receiver::take(const srn_video_frame* frame) {
  {
    const std::lock_guard lock(mutex_);
    const std::uint8_t* const bytes = srn_video_frame_get_buffer(frame);
    last_.width = srn_video_frame_get_width(frame);
    last_.height = srn_video_frame_get_height(frame);
    last_.bytes.assign(bytes, bytes + srn_video_frame_get_buffer_size(frame));
  }
  ++pictures_;
  if (on_picture) on_picture();
}

std::vector<std::int16_t> Receiver::samples() const {
  const std::lock_guard lock(mutex_);
  return samples_;
}

Picture Receiver::last_picture() const {
  const std::lock_guard lock(mutex_);
  return last_;
}

Sender::Sender(Options options) : options_(options) {
  callbacks_.user_data = this;
  callbacks_.on_stream_created = [](srn_publisher*, void* data, const srn_stream* stream) {
    note(sender(data).log, std::string("created ") + srn_stream_get_id(stream),
         sender(data).on_created);
  };
  callbacks_.on_stream_destroyed = [](srn_publisher*, void* data, const srn_stream*) {
    sender(data).log.add("destroyed");
  };
  callbacks_.on_error = [](srn_publisher*, void* data, const char* text,
                           enum srn_publisher_error_code code) {
    sender(data).log.add(numbered(code, text));
  };
  capturer_callbacks_.user_data = this;
  capturer_callbacks_.init = [](const srn_video_capturer* capturer, void* data) {
    sender(data).capturer_ = capturer;
    sender(data).log.add("init");
    return srn(sender(data).options_.init_result);
  };
  capturer_callbacks_.get_capture_settings = [](const srn_video_capturer*, void* data,
                                                srn_video_capturer_settings* settings) {
    sender(data).log.add("settings");
    *settings = {SRN_VIDEO_FRAME_FORMAT_YUV420P, 64, 48, sender(data).options_.fps, 0, SRN_FALSE};
    return srn(true);
  };
  capturer_callbacks_.start = [](const srn_video_capturer*, void* data) {
    note(sender(data).log, "start", sender(data).on_start);
    return srn(true);
  };
  capturer_callbacks_.destroy = [](const srn_video_capturer*, void* data) {
    sender(data).log.add("destroy");
    return srn(true);
  };
  srn_publisher_settings* const settings = srn_publisher_settings_new();
  srn_publisher_settings_set_name(settings, "sender");
  srn_publisher_settings_set_audio_track(settings, srn(options.audio));
  srn_publisher_settings_set_video_track(settings, srn(options.video));
  srn_publisher_settings_set_stereo(settings, SRN_TRUE);
  srn_publisher_settings_set_video_capturer(settings, &capturer_callbacks_);
  handle = srn_publisher_new_with_settings(&callbacks_, settings);
  srn_publisher_set_publish_captions(handle, srn(options.captions));
  srn_publisher_settings_delete(settings);
}

srn_status Sender::provide(int width, int height, const std::vector<std::uint8_t>& bytes) {
  srn_video_frame* const frame = srn_video_frame_new_contiguous_memory_wrapper(
      SRN_VIDEO_FRAME_FORMAT_YUV420P, width, height, SRN_TRUE, bytes.data(), bytes.size(), nullptr,
      nullptr);
  const srn_status status = srn_video_capturer_provide_frame(capturer_, 0, frame);
  srn_video_frame_delete(frame);
  return status;
}

Periodic::Periodic(std::chrono::nanoseconds period, std::function<void()> work)
    : thread_([this, period, work = std::move(work)] {
        for (auto due = std::chrono::steady_clock::now(); !stopped_;
             std::this_thread::sleep_until(due += period)) {
          work();
        }
      }) {}

Periodic::~Periodic() {
  stopped_ = true;
  thread_.join();
}

std::vector<std::int16_t> Sine::next(std::size_t frames) {
  std::vector<std::int16_t> samples;
  for (std::size_t frame = 0; frame < frames; ++frame, ++position_) {
    const double angle = 2 * std::numbers::pi * hertz_ * static_cast<double>(position_) / rate_;
    samples.insert(samples.end(), static_cast<std::size_t>(channels_),
                   static_cast<std::int16_t>(std::lround(8000 * std::sin(angle))));
  }
  return samples;
}

// A slot's name, as a template argument.
template <std::size_t N>
struct Name {
  constexpr Name(const char (&name)[N]) { std::copy_n(name, N, text); }
  char text[N];
};

struct DeviceSlots {
  using Handle = const srn_audio_device*;
  static Device& device(void* user_data) { return *static_cast<Device*>(user_data); }

  template <Name kSlot>
  static srn_bool note(Handle, void* data) {
    Device& self = device(data);
    const bool alone = self.inside_.fetch_add(1) == 0;
    self.log.add(alone ? kSlot.text : std::string(kSlot.text) + " again");
    --self.inside_;
    return SRN_TRUE;
  }
  template <Name kSlot, Device::State Device::*kState, bool kValue>
  static srn_bool change(Handle handle, void* data) {
    Device& self = device(data);
    const bool answer = kValue || self.stop_answers;
    if (answer) self.*kState = kValue;
    note<kSlot>(handle, data);
    return srn(answer);
  }
  template <Device::State Device::*kState>
  static srn_bool is(Handle, void* data) {
    return srn(device(data).*kState);
  }
  template <Name kSlot, const srn_audio_device_settings Device::*kSettings>
  static srn_bool tell(Handle handle, void* data, srn_audio_device_settings* settings) {
    *settings = device(data).*kSettings;
    return note<kSlot>(handle, data);
  }
};

Device::Device(srn_audio_device_settings capture, srn_audio_device_settings render)
    : capture_(capture), render_(render) {
  using Slots = DeviceSlots;
  auto& table = callbacks_;
  table.user_data = this;
  table.init = &Slots::note<"init">;
  table.destroy = &Slots::note<"destroy">;
  table.init_capturer = &Slots::change<"init_capturer", &Device::capturer_initialized_, true>;
  table.destroy_capturer =
      &Slots::change<"destroy_capturer", &Device::capturer_initialized_, false>;
  table.start_capturer = &Slots::change<"start_capturer", &Device::capturer_started_, true>;
  table.stop_capturer = &Slots::change<"stop_capturer", &Device::capturer_started_, false>;
  table.init_renderer = &Slots::change<"init_renderer", &Device::renderer_initialized_, true>;
  table.destroy_renderer =
      &Slots::change<"destroy_renderer", &Device::renderer_initialized_, false>;
  table.start_renderer = &Slots::change<"start_renderer", &Device::renderer_started_, true>;
  table.stop_renderer = &Slots::change<"stop_renderer", &Device::renderer_started_, false>;
  table.is_capturer_initialized = &Slots::is<&Device::capturer_initialized_>;
  table.is_capturer_started = &Slots::is<&Device::capturer_started_>;
  table.is_renderer_initialized = &Slots::is<&Device::renderer_initialized_>;
  table.is_renderer_started = &Slots::is<&Device::renderer_started_>;
  table.get_capture_settings = &Slots::tell<"capture_settings", &Device::capture_>;
  table.get_render_settings = &Slots::tell<"render_settings", &Device::render_>;
  srn_set_audio_device(&callbacks_);
}

ScenarioFile::ScenarioFile(const std::string& json) {
  static std::atomic<int> number{0};
  folder_ = std::filesystem::temp_directory_path() /
            ("sarnet-contract-" + std::to_string(::getpid()) + "-" + std::to_string(++number));
  std::filesystem::create_directories(folder_);
  std::ofstream(folder_ / "scenario.json") << json;
}

}  // namespace contract
