#include "contract/harness.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>
#include <utility>

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

void EventLog::add(const std::string& event) {
  const std::lock_guard lock(mutex_);
  events_.push_back(event);
  changed_.notify_all();
}

std::size_t EventLog::count(const std::string& prefix) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(events_.begin(), events_.end(),
                    [&](const std::string& each) { return each.starts_with(prefix); }));
}

bool EventLog::wait_for(const std::string& prefix, std::size_t count,
                        std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, patience, [&] {
    return static_cast<std::size_t>(std::count_if(
               events_.begin(), events_.end(),
               [&](const std::string& each) { return each.starts_with(prefix); })) >= count;
  });
}

std::vector<std::string> EventLog::all() const {
  const std::lock_guard lock(mutex_);
  return events_;
}

int EventLog::position(const std::string& prefix) const {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(events_.begin(), events_.end(), [&](const std::string& each) {
    return each.starts_with(prefix);
  });
  return found == events_.end() ? -1 : static_cast<int>(found - events_.begin());
}

void Latch::open() {
  const std::lock_guard lock(mutex_);
  open_ = true;
  changed_.notify_all();
}

bool Latch::wait(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, patience, [this] { return open_; });
}

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// ---- Participant
// ------------------------------------------------------------------------------------

namespace {

Participant& participant(void* user_data) { return *static_cast<Participant*>(user_data); }
Receiver& receiver(void* user_data) { return *static_cast<Receiver*>(user_data); }
Sender& sender(void* user_data) { return *static_cast<Sender*>(user_data); }

std::string numbered(const char* event, int code, const char* text) {
  return std::string(event) + ' ' + std::to_string(code) + ' ' + text;
}

}  // namespace

Participant::Participant(const std::string& session_id, const std::string& api_key) {
  callbacks_.user_data = this;
  callbacks_.on_connected = [](srn_session*, void* data) {
    participant(data).log.add("connected");
    if (participant(data).on_connected) participant(data).on_connected();
  };
  callbacks_.on_disconnected = [](srn_session*, void* data) {
    participant(data).log.add("disconnected");
    if (participant(data).on_disconnected) participant(data).on_disconnected();
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
    participant(data).log.add(numbered("error", code, text));
  };
  handle = srn_session_new_with_settings(api_key.c_str(), session_id.c_str(), &callbacks_,
                                         srn_session_settings_new());
}

Participant::~Participant() { remove(); }

srn_status Participant::remove() { return srn_session_delete(std::exchange(handle, nullptr)); }

srn_status Participant::connect(const std::string& host, const std::string& token) {
  return srn_session_connect_to_host(handle, host.c_str(), "", 443, SRN_TRUE, token.c_str());
}

bool Participant::join(const std::string& host, const std::string& token) {
  return connect(host, token) == SRN_SUCCESS && log.wait_for("connected");
}

std::shared_ptr<StreamCopy> Participant::wait_for_stream(std::size_t number) {
  if (!log.wait_for("stream+", number)) return nullptr;
  const std::lock_guard lock(mutex_);
  return streams_[number - 1];
}

// ---- Receiver
// ---------------------------------------------------------------------------------------

Receivers& Receivers::instance() {
  static auto* const receivers = new Receivers;
  return *receivers;
}

void Receivers::add(void* receiver) {
  const std::lock_guard lock(mutex_);
  inside_[receiver] = 0;
}

void Receivers::remove(void* receiver) {
  std::unique_lock lock(mutex_);
  left_.wait(lock, [&] { return inside_[receiver] == 0; });
  inside_.erase(receiver);
}

bool Receivers::enter(void* receiver) {
  const std::lock_guard lock(mutex_);
  const auto found = inside_.find(receiver);
  if (found == inside_.end()) return false;
  ++found->second;
  return true;
}

void Receivers::leave(void* receiver) {
  const std::lock_guard lock(mutex_);
  --inside_[receiver];
  left_.notify_all();
}

Receivers::Visit::Visit(void* receiver)
    : receiver_(receiver), welcome_(Receivers::instance().enter(receiver)) {}

Receivers::Visit::~Visit() {
  if (welcome_) Receivers::instance().leave(receiver_);
}

Receiver::Receiver(const srn_stream* stream, Wants wants) {
  Receivers::instance().add(this);
  srn_subscriber_callbacks callbacks{};
  callbacks.user_data = this;
  callbacks.on_connected = [](srn_subscriber*, void* data, const srn_stream*) {
    receiver(data).log.add("connected");
    if (receiver(data).on_connected) receiver(data).on_connected();
  };
  callbacks.on_disconnected = [](srn_subscriber*, void* data) {
    receiver(data).log.add("disconnected");
  };
  callbacks.on_error = [](srn_subscriber*, void* data, const char* text,
                          enum srn_subscriber_error_code code) {
    receiver(data).log.add(numbered("error", code, text));
  };
  if (wants.audio) {
    callbacks.on_audio_data = [](srn_subscriber*, void* data, const srn_audio_data* audio) {
      if (const Receivers::Visit visit(data); visit) receiver(data).take(*audio);
    };
  }
  if (wants.video) {
    callbacks.on_render_frame = [](srn_subscriber*, void* data, const srn_video_frame* frame) {
      if (const Receivers::Visit visit(data); visit) receiver(data).take(frame);
    };
  }
  if (wants.captions) {
    callbacks.on_caption_text = [](srn_subscriber*, void* data, const char* text, srn_bool final) {
      const Receivers::Visit visit(data);
      if (!visit) return;
      receiver(data).log.add(std::string(final == SRN_TRUE ? "caption " : "draft ") + text);
    };
  }
  handle = srn_subscriber_new(stream, &callbacks);
  srn_subscriber_set_subscribe_to_audio(handle, wants.audio ? SRN_TRUE : SRN_FALSE);
  srn_subscriber_set_subscribe_to_video(handle, wants.video ? SRN_TRUE : SRN_FALSE);
  srn_subscriber_set_subscribe_to_captions(handle, wants.captions ? SRN_TRUE : SRN_FALSE);
}

Receiver::~Receiver() {
  remove();
  Receivers::instance().remove(this);
}

int Receiver::remove() { return srn_subscriber_delete(std::exchange(handle, nullptr)); }

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

// ---- Sender
// -----------------------------------------------------------------------------------------

Sender::Sender(Options options) : options_(options) {
  callbacks_.user_data = this;
  callbacks_.on_stream_created = [](srn_publisher*, void* data, const srn_stream* stream) {
    if (data == nullptr) return;
    sender(data).log.add(std::string("created ") + srn_stream_get_id(stream));
    if (sender(data).on_created) sender(data).on_created();
  };
  callbacks_.on_stream_destroyed = [](srn_publisher*, void* data, const srn_stream*) {
    if (data != nullptr) sender(data).log.add("destroyed");
  };
  callbacks_.on_error = [](srn_publisher*, void* data, const char* text,
                           enum srn_publisher_error_code code) {
    if (data != nullptr) sender(data).log.add(numbered("error", code, text));
  };
  capturer_callbacks_.user_data = this;
  capturer_callbacks_.init = [](const srn_video_capturer* capturer, void* data) -> srn_bool {
    sender(data).capturer_ = capturer;
    sender(data).log.add("init");
    return sender(data).options_.init_result ? SRN_TRUE : SRN_FALSE;
  };
  capturer_callbacks_.get_capture_settings = [](const srn_video_capturer*, void* data,
                                                srn_video_capturer_settings* settings) -> srn_bool {
    sender(data).log.add("settings");
    *settings = {SRN_VIDEO_FRAME_FORMAT_YUV420P, 64, 48, sender(data).options_.fps, 0, SRN_FALSE};
    return SRN_TRUE;
  };
  capturer_callbacks_.start = [](const srn_video_capturer*, void* data) -> srn_bool {
    sender(data).log.add("start");
    if (sender(data).on_start) sender(data).on_start();
    return SRN_TRUE;
  };
  capturer_callbacks_.destroy = [](const srn_video_capturer*, void* data) -> srn_bool {
    sender(data).log.add("destroy");
    return SRN_TRUE;
  };
  srn_publisher_settings* const settings = srn_publisher_settings_new();
  srn_publisher_settings_set_name(settings, "sender");
  srn_publisher_settings_set_audio_track(settings, options.audio ? SRN_TRUE : SRN_FALSE);
  srn_publisher_settings_set_video_track(settings, options.video ? SRN_TRUE : SRN_FALSE);
  srn_publisher_settings_set_stereo(settings, options.stereo ? SRN_TRUE : SRN_FALSE);
  srn_publisher_settings_set_video_capturer(settings, &capturer_callbacks_);
  handle = srn_publisher_new_with_settings(&callbacks_, settings);
  srn_publisher_settings_delete(settings);
}

Sender::~Sender() { remove(); }

int Sender::remove() { return srn_publisher_delete(std::exchange(handle, nullptr)); }

srn_status Sender::provide(int width, int height, const std::vector<std::uint8_t>& bytes) {
  srn_video_frame* const frame = srn_video_frame_new_contiguous_memory_wrapper(
      SRN_VIDEO_FRAME_FORMAT_YUV420P, width, height, SRN_TRUE, bytes.data(), bytes.size(), nullptr,
      nullptr);
  const srn_status status = srn_video_capturer_provide_frame(capturer_, 0, frame);
  srn_video_frame_delete(frame);
  return status;
}

// ---- Device
// -----------------------------------------------------------------------------------------

struct DeviceSlots {
  static Device& device(void* user_data) { return *static_cast<Device*>(user_data); }

  static srn_bool note(void* data, const char* slot, bool result = true) {
    Device& self = device(data);
    const bool alone = self.inside_.fetch_add(1) == 0;
    self.log.add(alone ? slot : std::string(slot) + " again");
    --self.inside_;
    return result ? SRN_TRUE : SRN_FALSE;
  }
  static srn_bool change(void* data, const char* slot, std::atomic<bool> Device::*state,
                         bool value) {
    if (!value && !device(data).stop_answers) return note(data, slot, false);
    device(data).*state = value;
    return note(data, slot);
  }
};

Device::Device(srn_audio_device_settings capture, srn_audio_device_settings render)
    : capture_(capture), render_(render) {
  using Slots = DeviceSlots;
  using Handle = const srn_audio_device*;
  auto& table = callbacks_;
  table.user_data = this;
  table.init = [](Handle, void* data) { return Slots::note(data, "init"); };
  table.destroy = [](Handle, void* data) { return Slots::note(data, "destroy"); };
  table.init_capturer = [](Handle, void* data) {
    return Slots::change(data, "init_capturer", &Device::capturer_initialized_, true);
  };
  table.destroy_capturer = [](Handle, void* data) {
    return Slots::change(data, "destroy_capturer", &Device::capturer_initialized_, false);
  };
  table.start_capturer = [](Handle, void* data) {
    return Slots::change(data, "start_capturer", &Device::capturer_started_, true);
  };
  table.stop_capturer = [](Handle, void* data) {
    return Slots::change(data, "stop_capturer", &Device::capturer_started_, false);
  };
  table.init_renderer = [](Handle, void* data) {
    return Slots::change(data, "init_renderer", &Device::renderer_initialized_, true);
  };
  table.destroy_renderer = [](Handle, void* data) {
    return Slots::change(data, "destroy_renderer", &Device::renderer_initialized_, false);
  };
  table.start_renderer = [](Handle, void* data) {
    return Slots::change(data, "start_renderer", &Device::renderer_started_, true);
  };
  table.stop_renderer = [](Handle, void* data) {
    return Slots::change(data, "stop_renderer", &Device::renderer_started_, false);
  };
  table.is_capturer_initialized = [](Handle, void* data) -> srn_bool {
    return Slots::device(data).capturer_initialized_ ? SRN_TRUE : SRN_FALSE;
  };
  table.is_capturer_started = [](Handle, void* data) -> srn_bool {
    return Slots::device(data).capturer_started_ ? SRN_TRUE : SRN_FALSE;
  };
  table.is_renderer_initialized = [](Handle, void* data) -> srn_bool {
    return Slots::device(data).renderer_initialized_ ? SRN_TRUE : SRN_FALSE;
  };
  table.is_renderer_started = [](Handle, void* data) -> srn_bool {
    return Slots::device(data).renderer_started_ ? SRN_TRUE : SRN_FALSE;
  };
  table.get_capture_settings = [](Handle, void* data, srn_audio_device_settings* settings) {
    *settings = Slots::device(data).capture_;
    return Slots::note(data, "capture_settings");
  };
  table.get_render_settings = [](Handle, void* data, srn_audio_device_settings* settings) {
    *settings = Slots::device(data).render_;
    return Slots::note(data, "render_settings");
  };
  srn_set_audio_device(&callbacks_);
}

Device::~Device() { srn_set_audio_device(nullptr); }

// ---- ScenarioFile
// -----------------------------------------------------------------------------------

ScenarioFile::ScenarioFile(const std::string& json) {
  static std::atomic<int> number{0};
  folder_ = std::filesystem::temp_directory_path() /
            ("sarnet-contract-" + std::to_string(::getpid()) + "-" + std::to_string(++number));
  std::filesystem::create_directories(folder_);
  std::ofstream(folder_ / "scenario.json") << json;
}

ScenarioFile::~ScenarioFile() { std::filesystem::remove_all(folder_); }

}  // namespace contract
