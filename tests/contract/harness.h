#pragma once

#include <sarnet/sarnet.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "waiting.h"

namespace contract {

bool eventually(const std::function<bool()>& condition);

// Where participants meet: on the embedded engine, or on the server that with_server.py names.
struct Place {
  std::string host;
  std::string session;
  std::string token;
};
bool on_server();
// With a companion who publishes a picture of 640x480, a tone and captions.
Place companions_place();
// A new one, with nobody.
Place empty_place();
// Joining it takes longer than any test.
Place silent_place();

// What a program knows of a stream that it received: a copy of the handle, deleted with it.
class StreamCopy {
 public:
  explicit StreamCopy(const srn_stream* stream) : handle_(srn_stream_copy(stream)) {}
  ~StreamCopy() { srn_stream_delete(handle_); }
  StreamCopy(const StreamCopy&) = delete;
  StreamCopy& operator=(const StreamCopy&) = delete;
  srn_stream* get() const { return handle_; }

 private:
  srn_stream* const handle_;
};

// One srn_session whose events go to a log, as "connected", "error 1004 TEXT", "stream+ ID" ...
// Hooks run inside the callbacks, after the log. Deletes itself.
class Participant {
 public:
  explicit Participant(Place place = companions_place());
  ~Participant() { remove(); }
  Participant(const Participant&) = delete;
  Participant& operator=(const Participant&) = delete;

  srn_status connect() {
    return srn_session_connect_to_host(handle, place_.host.c_str(), "", 443, SRN_TRUE,
                                       place_.token.c_str());
  }
  // Connects and waits; false when there was no on_connected.
  bool join() { return connect() == SRN_SUCCESS && log.await("connected"); }
  srn_status remove() { return srn_session_delete(std::exchange(handle, nullptr)); }
  // The stream that came as the `number`th, once it has; throws when it does not come.
  std::shared_ptr<StreamCopy> wait_for_stream(std::size_t number = 1);

  srn_session* handle = nullptr;
  Journal log;
  std::function<void()> on_connected;
  std::function<void(const srn_stream*)> on_stream_received;
  std::function<void()> on_disconnected;

 private:
  const Place place_;
  srn_session_callbacks callbacks_{};
  std::mutex mutex_;
  std::vector<std::shared_ptr<StreamCopy>> streams_;
};

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> bytes;

  // Whether it has this value all over, as nearly as it was carried.
  bool is(int value) const;
};

// One srn_subscriber: "connected", "disconnected", "error CODE TEXT", "caption TEXT" and
// "draft TEXT" in its log; sound and pictures are kept. Hooks run inside the callbacks.
class Receiver {
 public:
  struct Wants {
    bool audio = true;
    bool video = true;
    bool captions = true;
  };
  Receiver(const srn_stream* stream, Wants wants);
  explicit Receiver(const srn_stream* stream) : Receiver(stream, Wants{}) {}
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;
  int remove() { return srn_subscriber_delete(std::exchange(handle, nullptr)); }

  std::size_t audio_blocks() const { return audio_blocks_; }
  std::size_t pictures() const { return pictures_; }
  std::vector<std::int16_t> samples() const;
  Picture last_picture() const;

  srn_subscriber* handle = nullptr;
  Journal log;
  std::function<void()> on_connected;
  std::function<void()> on_audio;
  std::function<void()> on_picture;

 private:
  // A media callback may begin after its subscriber was deleted. It must then find nobody, and
  // whoever is found must stay until it has left.
  struct Door {
    std::shared_mutex mutex;
    Receiver* receiver;
  };
  template <class Use>
  static void visit(void* door, Use use);
  void take(const srn_audio_data& data);
  void take(const srn_video_frame* frame);

  Door& door_;
  std::atomic<std::size_t> audio_blocks_{0};
  std::atomic<std::size_t> pictures_{0};
  mutable std::mutex mutex_;
  std::vector<std::int16_t> samples_;
  Picture last_;
};

// One srn_publisher with a capturer: "init", "settings", "start", "destroy", "created ID",
// "destroyed", "error CODE TEXT" in its log.
class Sender {
 public:
  struct Options {
    bool audio = true;
    bool video = true;
    int fps = 30;
    bool init_result = true;
    bool captions = false;
  };
  explicit Sender(Options options);
  ~Sender() { remove(); }
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  int remove() { return srn_publisher_delete(std::exchange(handle, nullptr)); }
  // One YUV420P picture of packed bytes, straight to the capturer.
  srn_status provide(int width, int height, const std::vector<std::uint8_t>& bytes);

  srn_publisher* handle = nullptr;
  Journal log;
  std::function<void()> on_created;
  std::function<void()> on_start;

 private:
  srn_publisher_callbacks callbacks_{};
  srn_video_capturer_callbacks capturer_callbacks_{};
  const Options options_;
  std::atomic<const srn_video_capturer*> capturer_{nullptr};
};

// The process's audio device; its slots go to a log under their names, with " again" when two of
// them ran at once. Installed by the constructor, removed by the destructor.
class Device {
 public:
  explicit Device(srn_audio_device_settings capture = {48000, 2},
                  srn_audio_device_settings render = {48000, 2});
  ~Device() { srn_set_audio_device(nullptr); }
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  Journal log;
  std::atomic<bool> stop_answers{true};  // what stop_* and destroy_* answer

 private:
  friend struct DeviceSlots;
  using State = std::atomic<bool>;

  srn_audio_device_callbacks callbacks_{};
  const srn_audio_device_settings capture_;
  const srn_audio_device_settings render_;
  State capturer_initialized_{false};
  State renderer_initialized_{false};
  State capturer_started_{false};
  State renderer_started_{false};
  std::atomic<int> inside_{0};
};

// A scenario file in a folder of its own, removed at the end.
class ScenarioFile {
 public:
  explicit ScenarioFile(const std::string& json);
  ~ScenarioFile() { std::filesystem::remove_all(folder_); }
  ScenarioFile(const ScenarioFile&) = delete;
  ScenarioFile& operator=(const ScenarioFile&) = delete;

  std::string host() const { return "embedded:" + (folder_ / "scenario.json").string(); }
  Place place(const std::string& token = "token") const { return {host(), "session", token}; }
  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_;
};

// Calls `work` once a period, by an absolute clock, until it goes.
class Periodic {
 public:
  Periodic(std::chrono::nanoseconds period, std::function<void()> work);
  ~Periodic();
  Periodic(const Periodic&) = delete;
  Periodic& operator=(const Periodic&) = delete;

 private:
  std::atomic<bool> stopped_{false};
  std::thread thread_;
};

class Sine {
 public:
  Sine(int rate, int channels, double hertz) : rate_(rate), channels_(channels), hertz_(hertz) {}
  std::vector<std::int16_t> next(std::size_t frames);

 private:
  int rate_;
  int channels_;
  double hertz_;
  std::uint64_t position_ = 0;
};

// Both wait until it has come about.
inline bool publish(Participant& program, Sender& sender) {
  return srn_session_publish(program.handle, sender.handle) == SRN_SUCCESS &&
         sender.log.await("created");
}
inline bool subscribe(Participant& program, Receiver& receiver) {
  return srn_session_subscribe(program.handle, receiver.handle) == SRN_SUCCESS &&
         receiver.log.await("connected");
}

// How often the library asked this program for its device information.
int device_info_requests();

// srn_init and srn_destroy around a test.
class LibraryUse {
 public:
  LibraryUse() { srn_init(nullptr); }
  ~LibraryUse() { srn_destroy(); }
  LibraryUse(const LibraryUse&) = delete;
  LibraryUse& operator=(const LibraryUse&) = delete;
};

// Two who have joined a place of their own.
struct Meeting {
  Meeting() {
    if (!first.join() || !second.join()) throw std::runtime_error("not joined");
  }
  LibraryUse library;
  const Place place = empty_place();
  Participant first{place};
  Participant second{place};
};

}  // namespace contract
