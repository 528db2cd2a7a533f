#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "relay/peer/publishing_peer.h"
#include "relay/peer/receiving_peer.h"

// A publishing and a receiving peer in one process, over 127.0.0.1, with no server between them.
namespace loopback {

using sarnet::AudioFormat;
using sarnet::PictureRef;
using Clock = std::chrono::steady_clock;

// The number of a picture, as 16 blocks of 16x16 in its first rows. A reading is -1 when a block is
// neither black nor white.
void paint_number(sarnet::Picture& picture, int number);
int read_number(const sarnet::Picture& picture);

// Keeps account of what arrives.
class Listener : public sarnet::MediaSink {
 public:
  struct Frame {
    int number = 0;
    int width = 0;
    int height = 0;
    Clock::time_point at;
  };

  void on_audio(const AudioFormat& format, std::span<const std::int16_t> samples) override;
  void on_picture(const PictureRef& picture) override;
  void on_caption(std::string_view text, bool is_final) override;

  // False when the condition did not come true in time.
  bool wait(const std::function<bool(const Listener&)>& condition,
            std::chrono::milliseconds limit = std::chrono::seconds(20));

  // To be read inside a condition, or when nothing arrives any more.
  std::vector<Frame> frames;
  std::vector<std::pair<std::string, bool>> captions;
  std::vector<int> block_sizes;          // of each new size, in frames
  std::vector<std::size_t> loud_blocks;  // which of the blocks
  std::size_t blocks = 0;
  std::vector<Clock::time_point> block_times;
  int channels = 0;
  Clock::duration longest_silence{};  // between two blocks

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Clock::time_point last_block_{};
};

class Call {
 public:
  explicit Call(const sarnet::relay::PublishSettings& settings);
  ~Call();
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  bool connected(std::chrono::milliseconds limit = std::chrono::seconds(15));
  // Feeds sound (a tone in the first 100 ms of each second) and numbered pictures in real time
  // until `until` says so, at most for `limit`.
  void feed(const std::function<bool()>& until, std::chrono::seconds limit);
  // Changes the offer on its way; before start().
  std::function<std::string(std::string)> edit_offer;
  void start();
  void stop();

  Listener& listener() { return *listener_; }
  sarnet::relay::PublishingPeer& publisher() { return *publisher_; }
  int pictures_sent() const { return pictures_sent_; }
  int blocks_sent() const { return blocks_sent_; }
  std::string answer();
  // The encoding of pictures that the answer took.
  std::string answered_codec();
  std::string failure();

  int width = 320;
  int height = 240;

 private:
  class Side;
  void run(const std::function<void()>& task);

  const sarnet::relay::PublishSettings settings_;
  std::shared_ptr<sarnet::relay::MainLoop> loop_ = std::make_shared<sarnet::relay::MainLoop>();
  std::shared_ptr<Listener> listener_ = std::make_shared<Listener>();
  std::unique_ptr<Side> publishing_;
  std::unique_ptr<Side> receiving_;
  std::shared_ptr<sarnet::relay::PublishingPeer> publisher_;
  std::shared_ptr<sarnet::relay::ReceivingPeer> receiver_;
  sarnet::PicturePool pool_{16};
  int pictures_sent_ = 0;  // the feeding thread's
  int blocks_sent_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int connected_ = 0;
  std::string failure_;
  std::string answer_;
};

}  // namespace loopback
