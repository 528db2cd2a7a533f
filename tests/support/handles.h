// The handles of the scripted library. A handle owns itself until its delete; then it lies in
// quarantine, so that a later use is recognised and reported, not undefined.
#pragma once

#include <sarnet/sarnet.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace scripted {

enum class Kind : uint32_t {
  session,
  session_settings,
  publisher,
  publisher_settings,
  subscriber,
  stream,
  connection,
  frame,
  capturer,
  device,
  count
};

struct Handle {
  explicit Handle(Kind handle_kind) : kind(handle_kind) {}
  virtual ~Handle() { kind = Kind::count; }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  Kind kind;
  long number = 0;
  std::atomic<bool> alive{true};
  // Set for what the program must delete; empty for what lives inside a callback or another handle.
  std::shared_ptr<Handle> self;
};

// Says whether callbacks of a handle may start, and lets a delete wait for those that are running.
// A delete from inside a callback of the same handle does not wait for itself.
class Gate {
 public:
  // `rogue`: in rogue mode callbacks start at any time.
  explicit Gate(bool rogue) : rogue_(rogue) {}
  bool open() const;
  // Counts a state callback in; false when the handle was deleted or is not bound. `prepare` runs
  // under the gate's lock: what it reads cannot change by then.
  template <class Prepare>
  bool enter(Prepare prepare) {
    const std::lock_guard lock(mutex_);
    if (!mayStart()) return false;
    prepare();
    running_.push_back(std::this_thread::get_id());
    return true;
  }
  void leave();
  void bind(bool bound);
  // No callback starts any more; waits for running ones.
  void close();

 private:
  bool mayStart() const;

  const bool rogue_;
  mutable std::mutex mutex_;
  std::condition_variable left_;
  std::vector<std::thread::id> running_;
  bool bound_ = false;
  bool closed_ = false;
};

// Leaves the gate also when the thread is ended by unwinding inside the callback.
class Inside {
 public:
  explicit Inside(Gate& gate) : gate_(gate) {}
  ~Inside() { gate_.leave(); }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;

 private:
  Gate& gate_;
};

// A text that may be null.
class Text {
 public:
  Text() = default;
  explicit Text(const char* text) : null_(text == nullptr), value_(text == nullptr ? "" : text) {}
  const char* get() const { return null_ ? nullptr : value_.c_str(); }

 private:
  bool null_ = true;
  std::string value_;
};

struct ConnectionFacts {
  Text id;
  Text data;
  Text session_id;
  int64_t creation_time = 0;
};

}  // namespace scripted

struct srn_connection : scripted::Handle {
  explicit srn_connection(scripted::ConnectionFacts connection_facts)
      : Handle(scripted::Kind::connection), facts(std::move(connection_facts)) {}
  const scripted::ConnectionFacts facts;
};

struct srn_stream : scripted::Handle {
  srn_stream(scripted::Text stream_id, std::shared_ptr<srn_connection> stream_connection)
      : Handle(scripted::Kind::stream),
        id(std::move(stream_id)),
        connection(std::move(stream_connection)) {}
  const scripted::Text id;
  const std::shared_ptr<srn_connection> connection;  // null: none
};

struct srn_session_settings : scripted::Handle {
  srn_session_settings() : Handle(scripted::Kind::session_settings) {}
};

struct srn_session : scripted::Handle {
  srn_session(const char* session_id, const srn_session_callbacks& callbacks)
      : Handle(scripted::Kind::session), id(session_id), table(callbacks) {
    gate.bind(true);
  }
  const std::string id;
  const srn_session_callbacks table;
  scripted::Gate gate{true};
  std::atomic<bool> open{false};    // from a successful connect to the end
  std::atomic<bool> joined{false};  // from on_connected to the end
};

struct srn_video_capturer : scripted::Handle {
  srn_video_capturer() : Handle(scripted::Kind::capturer) {}
};

struct srn_publisher_settings : scripted::Handle {
  srn_publisher_settings() : Handle(scripted::Kind::publisher_settings) {}
  bool video_track = true;
  const srn_video_capturer_callbacks* capturer = nullptr;
};

struct srn_publisher : scripted::Handle {
  srn_publisher(const srn_publisher_callbacks* callbacks, const srn_publisher_settings& settings)
      : Handle(scripted::Kind::publisher),
        table(callbacks),
        video_track(settings.video_track),
        has_capturer(settings.capturer != nullptr) {
    if (has_capturer) capturer_table = *settings.capturer;
    capturer_gate.bind(true);
  }
  const srn_publisher_callbacks* const table;  // by address: `user_data` is read for each call
  const bool video_track;
  const bool has_capturer;
  srn_video_capturer_callbacks capturer_table{};
  srn_video_capturer capturer;
  std::string id;
  scripted::Gate gate{false};
  scripted::Gate capturer_gate{false};
  std::atomic<bool> capturer_initialised{false};
};

struct srn_subscriber : scripted::Handle {
  srn_subscriber(const srn_stream& of_stream, const srn_subscriber_callbacks& callbacks)
      : Handle(scripted::Kind::subscriber),
        stream(std::make_shared<srn_stream>(of_stream.id, of_stream.connection)),
        table(callbacks) {}
  const std::shared_ptr<srn_stream> stream;
  const srn_subscriber_callbacks table;
  std::string id;
  scripted::Gate gate{true};
  std::mutex audio_turn;
  std::mutex frame_turn;
  std::mutex caption_turn;
};

struct srn_audio_device : scripted::Handle {
  srn_audio_device() : Handle(scripted::Kind::device) {}
};

namespace scripted {

// Numbers the handle and makes it the program's: it lives until `retire`.
template <class T>
T* adopt(std::shared_ptr<T> handle);
// The next number of the kind.
long nextNumber(Kind kind);
void countLive(Kind kind, int change);
long live(const char* kind);
void restartNumbers();

// Whether the handle is one of its kind and not deleted. Null is false without a fault.
bool isValid(const Handle* handle, Kind kind, const char* function);
// Ends the handle's life; false with a fault when it is not the program's to delete.
bool retire(Handle* handle, Kind kind, const char* function);
// Keeps what a callback was given until well after the callback.
void quarantine(std::shared_ptr<Handle> handle);

template <class T>
T* adopt(std::shared_ptr<T> handle) {
  T* const raw = handle.get();
  raw->number = nextNumber(raw->kind);
  countLive(raw->kind, 1);
  raw->self = std::move(handle);
  return raw;
}

// The live handles with callbacks, newest last.
void rememberSession(const std::shared_ptr<srn_session>& session);
void rememberPublisher(const std::shared_ptr<srn_publisher>& publisher);
void rememberSubscriber(const std::shared_ptr<srn_subscriber>& subscriber);
void forgetHandles();
void chooseSession(long number);
// In rogue mode deleted ones are found as well.
std::shared_ptr<srn_session> currentSession();
std::shared_ptr<srn_publisher> currentPublisher();
std::shared_ptr<srn_subscriber> subscriberOf(const char* stream_id);

}  // namespace scripted
