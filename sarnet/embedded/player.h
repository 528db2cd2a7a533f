#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/picture.h"
#include "common/mutex.h"
#include "embedded/companion_media.h"
#include "embedded/room_stream.h"
#include "embedded/scenario.h"
#include "plugins/file_plugin.h"

namespace sarnet {

// Plays one scripted participant: sound in 10 ms blocks of 48 kHz stereo, pictures and captions, on
// the steady clock, on a thread of its own that the ThreadKeeper joins.
class Player : public std::enable_shared_from_this<Player> {
 public:
  using StopFlag = std::shared_ptr<const std::atomic<bool>>;

  // Opens the participant's files; blocks on the disk. Null and `error`, which names the scenario
  // and its key, on failure. Setting `all_over` ends opening and playing like stop().
  static std::shared_ptr<Player> create(const ScenarioParticipant& script, const StopFlag& all_over,
                                        std::string& error);

  Player(ScenarioParticipant script, StopFlag all_over);

  // Once. Throws std::system_error when no thread can be made.
  void start(std::shared_ptr<RoomStream> stream);
  // Does not wait; the current block or picture is still delivered.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;

  static constexpr AudioFormat kFormat{48000, 2};
  static constexpr std::size_t kBlock = std::size_t{2} * 480;

  bool open(std::string& error);
  bool over() const { return stopped_ || (all_over_ && *all_over_); }
  void report(const std::string& key, const std::string& error) const;
  void run();
  void play_audio();
  void play_picture();
  void play_captions(Clock::duration elapsed);

  const ScenarioParticipant script_;
  const StopFlag all_over_;
  std::unique_ptr<AudioReader> audio_file_;
  std::unique_ptr<VideoReader> video_file_;
  std::optional<Tone> tone_;
  std::optional<TestCard> card_;
  double fps_ = 0;  // 0: no pictures

  std::shared_ptr<RoomStream> stream_;
  PicturePool pool_{16};
  std::vector<std::int16_t> block_ = std::vector<std::int16_t>(kBlock);
  std::uint32_t pictures_ = 0;
  std::size_t next_caption_ = 0;
  Clock::duration caption_start_{};  // of the current pass through the list

  common::Mutex mutex_;
  std::condition_variable changed_;
  std::atomic<bool> stopped_{false};  // set under mutex_
};

}  // namespace sarnet
