// The handles of the scripted library. A handle owns itself until its delete; then it is
// quarantined, so that a later use is recognised and reported, not undefined.
#pragma once

#include <sarnet/sarnet.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace scripted {

enum class Kind {
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

struct Handle : std::enable_shared_from_this<Handle> {
  explicit Handle(Kind handle_kind) : kind(handle_kind) {}
  virtual ~Handle() { kind = Kind::count; }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  Kind kind;
  long number = 0;
  std::atomic<bool> alive{true};
  // Set for handles that the program must delete; empty for those inside a callback or another
  // handle.
  std::shared_ptr<Handle> self;
};

template <Kind handle_kind>
struct HandleOf : Handle {
  static constexpr Kind kKind = handle_kind;
  HandleOf() : Handle(handle_kind) {}
};

// Decides whether callbacks of a handle may start, and lets a delete wait for running ones. A
// delete from inside a callback of the same handle does not wait for itself.
class Gate {
 public:
  // `rogue`: in rogue mode callbacks start at any time.
  explicit Gate(bool rogue, bool bound) : rogue_(rogue), bound_(bound) {}
  bool open() const;
  // Runs the callback; false when the handle was deleted or is not bound. Also counted as left when
  // the thread is unwound inside the callback. `prepare` runs under the gate's lock: what it reads
  // does not change before the handle is unbound or deleted.
  template <class Prepare, class Callback>
  bool pass(Prepare prepare, Callback callback) {
    {
      const std::lock_guard lock(mutex_);
      if (!mayStart()) return false;
      prepare();
      running_.push_back(std::this_thread::get_id());
    }
    const struct Inside {
      Gate& gate;
      ~Inside() { gate.leave(); }
    } inside{*this};
    callback();
    return true;
  }
  void bind(bool bound);
  // No callback starts any more; waits for running ones.
  void close();

 private:
  bool mayStart() const;
  void leave();

  const bool rogue_;
  mutable std::mutex mutex_;
  std::condition_variable left_;
  std::vector<std::thread::id> running_;
  bool bound_;
  bool closed_ = false;
};

// A text that may be null.
using Text = std::optional<std::string>;
inline Text text(const char* given) { return given == nullptr ? Text() : Text(given); }
inline const char* given(const Text& text) { return text ? text->c_str() : nullptr; }

}  // namespace scripted

struct srn_connection : scripted::HandleOf<scripted::Kind::connection> {
  scripted::Text id;
  scripted::Text data;
  scripted::Text session_id;
  int64_t creation_time = 0;
};

struct srn_stream : scripted::HandleOf<scripted::Kind::stream> {
  srn_stream(scripted::Text stream_id, std::shared_ptr<const srn_connection> stream_connection)
      : id(std::move(stream_id)), connection(std::move(stream_connection)) {}
  const scripted::Text id;
  const std::shared_ptr<const srn_connection> connection;  // null: none
};

struct srn_session_settings : scripted::HandleOf<scripted::Kind::session_settings> {};

struct srn_session : scripted::HandleOf<scripted::Kind::session> {
  srn_session(const char* session_id, const srn_session_callbacks& callbacks)
      : id(session_id), table(callbacks) {}
  const std::string id;
  const srn_session_callbacks table;
  scripted::Gate gate{true, true};
  std::atomic<bool> open{false};    // from a successful connect to the end
  std::atomic<bool> joined{false};  // from on_connected to the end
};

struct srn_video_capturer : scripted::HandleOf<scripted::Kind::capturer> {};
struct srn_audio_device : scripted::HandleOf<scripted::Kind::device> {};

struct srn_publisher_settings : scripted::HandleOf<scripted::Kind::publisher_settings> {
  bool video_track = true;
  const srn_video_capturer_callbacks* capturer = nullptr;
};

struct srn_publisher : scripted::HandleOf<scripted::Kind::publisher> {
  srn_publisher(const srn_publisher_callbacks& callbacks, const srn_publisher_settings& settings)
      : table(callbacks) {
    if (settings.video_track && settings.capturer != nullptr) capturer_table = *settings.capturer;
  }
  const srn_publisher_callbacks& table;  // the program's: `user_data` is read for each call
  std::optional<srn_video_capturer_callbacks> capturer_table;
  srn_video_capturer capturer;
  std::string id;
  scripted::Gate gate{false, false};
  scripted::Gate capturer_gate{false, true};
  std::atomic<bool> capturer_initialised{false};
};

struct srn_subscriber : scripted::HandleOf<scripted::Kind::subscriber> {
  srn_subscriber(const srn_stream& of_stream, const srn_subscriber_callbacks& callbacks)
      : stream(of_stream.id, of_stream.connection), table(callbacks) {}
  srn_stream stream;
  const srn_subscriber_callbacks table;
  std::string id;
  scripted::Gate gate{true, false};
  std::mutex audio_turn;
  std::mutex frame_turn;
  std::mutex caption_turn;
};

namespace scripted {

// Numbers the handle and makes it the program's: it lives until `retire`.
void adoptHandle(const std::shared_ptr<Handle>& handle);
template <class T>
T* adopt(const std::shared_ptr<T>& handle) {
  adoptHandle(handle);
  return handle.get();
}
// Any thread, even while another deletes the handle.
template <class T>
std::shared_ptr<T> shared(T* handle) {
  return std::static_pointer_cast<T>(handle->weak_from_this().lock());
}
long live(std::string_view kind);

// Whether the handle is of its kind and not deleted. False for null, without a fault.
bool isValid(const Handle* handle, Kind kind, const char* function);
// Ends the handle's life; false with a fault when it is not the program's to delete.
bool retire(Handle* handle, Kind kind, const char* function);
// Keeps a callback's argument until well after the callback; null: nothing.
void quarantine(std::shared_ptr<Handle> handle);

// Those adopted since the last reset, newest first, the deleted ones only in rogue mode.
std::vector<std::shared_ptr<Handle>> handles(Kind kind);
template <class T, class Wanted>
std::shared_ptr<T> newest(Wanted wanted) {
  for (const auto& handle : handles(T::kKind)) {
    const auto found = std::static_pointer_cast<T>(handle);
    if (wanted(*found)) return found;
  }
  return nullptr;
}
std::shared_ptr<srn_session> currentSession();
std::shared_ptr<srn_publisher> currentPublisher();
std::shared_ptr<srn_subscriber> subscriberOf(const char* stream_id);
void chooseSession(long number);
void forgetHandles();

}  // namespace scripted
