#pragma once

#include <sarnet/sarnet.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace contract {

// Long enough for a busy machine under a sanitizer; nothing waits that long when all is well.
constexpr std::chrono::seconds kPatience{30};

// What happened, in order, on any thread; tests wait for it.
class EventLog {
 public:
  void add(const std::string& event);
  // Whether `count` events that start with `prefix` have come in time.
  bool wait_for(const std::string& prefix, std::size_t count = 1,
                std::chrono::milliseconds patience = kPatience);
  std::vector<std::string> all() const;
  // Of the first event with that prefix, or -1.
  int position(const std::string& prefix) const;
  std::size_t count(const std::string& prefix) const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

// A gate that a callback stands at until the test opens it.
class Latch {
 public:
  void open();
  bool wait(std::chrono::milliseconds patience = kPatience);

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

bool eventually(const std::function<bool()>& condition);

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
  explicit Participant(const std::string& session_id = "session",
                       const std::string& api_key = "key");
  ~Participant();
  Participant(const Participant&) = delete;
  Participant& operator=(const Participant&) = delete;

  srn_status connect(const std::string& host = "api.sarnet.localhost",
                     const std::string& token = "token");
  // Connects and waits; false when there was no on_connected.
  bool join(const std::string& host = "api.sarnet.localhost", const std::string& token = "token");
  srn_status remove();
  // The first stream that came, once it has.
  std::shared_ptr<StreamCopy> wait_for_stream(std::size_t number = 1);

  srn_session* handle = nullptr;
  EventLog log;
  std::function<void()> on_connected;
  std::function<void(const srn_stream*)> on_stream_received;
  std::function<void()> on_disconnected;

 private:
  srn_session_callbacks callbacks_{};
  std::mutex mutex_;
  std::vector<std::shared_ptr<StreamCopy>> streams_;
};

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> bytes;
};

// The receivers that there are, by their addresses: a media callback may begin after its subscriber
// was deleted, and must then find nothing, and a receiver goes only when no callback is inside.
class Receivers {
 public:
  static Receivers& instance();
  void add(void* receiver);
  void remove(void* receiver);

  class Visit {
   public:
    explicit Visit(void* receiver);
    ~Visit();
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    explicit operator bool() const { return welcome_; }

   private:
    void* const receiver_;
    const bool welcome_;
  };

 private:
  bool enter(void* receiver);
  void leave(void* receiver);

  std::mutex mutex_;
  std::condition_variable left_;
  std::map<void*, int> inside_;
};

// One srn_subscriber: "connected", "disconnected", "error CODE TEXT" and "caption TEXT" in its log;
// sound and pictures are kept. Hooks run inside the callbacks.
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
  int remove();

  std::size_t audio_blocks() const { return audio_blocks_; }
  std::size_t pictures() const { return pictures_; }
  std::vector<std::int16_t> samples() const;
  Picture last_picture() const;

  srn_subscriber* handle = nullptr;
  EventLog log;
  std::function<void()> on_connected;
  std::function<void()> on_audio;
  std::function<void()> on_picture;

 private:
  void take(const srn_audio_data& data);
  void take(const srn_video_frame* frame);

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
    bool stereo = true;
    int fps = 30;
    bool init_result = true;
  };
  explicit Sender(Options options);
  ~Sender();
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;
  int remove();
  // One YUV420P picture of packed bytes, straight to the capturer.
  srn_status provide(int width, int height, const std::vector<std::uint8_t>& bytes);

  srn_publisher* handle = nullptr;
  EventLog log;
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
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  EventLog log;
  std::atomic<bool> stop_answers{true};  // what stop_* and destroy_* answer

 private:
  srn_audio_device_callbacks callbacks_{};
  const srn_audio_device_settings capture_;
  const srn_audio_device_settings render_;
  std::atomic<bool> capturer_initialized_{false};
  std::atomic<bool> renderer_initialized_{false};
  std::atomic<bool> capturer_started_{false};
  std::atomic<bool> renderer_started_{false};
  std::atomic<int> inside_{0};

  friend struct DeviceSlots;
};

// A scenario file in a folder of its own, removed at the end.
class ScenarioFile {
 public:
  explicit ScenarioFile(const std::string& json);
  ~ScenarioFile();
  ScenarioFile(const ScenarioFile&) = delete;
  ScenarioFile& operator=(const ScenarioFile&) = delete;

  std::string host() const { return "embedded:" + (folder_ / "scenario.json").string(); }
  const std::filesystem::path& folder() const { return folder_; }

 private:
  std::filesystem::path folder_;
};

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

}  // namespace contract
