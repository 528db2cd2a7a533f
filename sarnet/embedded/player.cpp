#include "embedded/player.h"

#include <algorithm>
#include <utility>

#include "base/log.h"
#include "base/thread_keeper.h"

namespace sarnet {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPeriod{10};
// A player delayed by more skips what it missed instead of catching up.
constexpr milliseconds kPatience{200};

}  // namespace

Player::Player(ScenarioParticipant script, StopFlag all_over)
    : script_(std::move(script)), all_over_(std::move(all_over)) {}

std::shared_ptr<Player> Player::create(const ScenarioParticipant& script, const StopFlag& all_over,
                                       std::string& error) {
  auto player = std::make_shared<Player>(script, all_over);
  return player->open(error) ? player : nullptr;
}

bool Player::open(std::string& error) {
  const FilePlugin* plugin = nullptr;
  const bool audio_file = script_.audio && !script_.audio->file.empty();
  const bool video_file = script_.video && !script_.video->file.empty();
  if (audio_file || video_file) {
    plugin = FilePlugin::load(error);
    if (plugin == nullptr) {
      error = (audio_file ? script_.audio->file_key : script_.video->file_key) + ": " + error;
      return false;
    }
  }
  const auto interrupted = [this] { return over(); };
  if (audio_file) {
    const auto& audio = *script_.audio;
    audio_file_ = plugin->open_audio(audio.file, kFormat, audio.loop, interrupted, error);
    if (!audio_file_) {
      error = audio.file_key + ": " + error;
      return false;
    }
  } else if (script_.audio) {
    tone_.emplace(kFormat, script_.audio->tone_hz, script_.audio->tone_level);
  }
  if (video_file) {
    const auto& video = *script_.video;
    video_file_ = plugin->open_video(video.file, video.width, video.height, video.fps, video.loop,
                                     interrupted, error);
    if (!video_file_) {
      error = video.file_key + ": " + error;
      return false;
    }
    fps_ = video_file_->fps();
  } else if (script_.video) {
    card_.emplace(script_.video->width, script_.video->height);
    fps_ = script_.video->fps;
  }
  return true;
}

void Player::start(std::shared_ptr<RoomStream> stream) {
  stream_ = std::move(stream);
  ThreadKeeper::instance().start("srn-player", [self = shared_from_this()] { self->run(); });
}

void Player::stop() {
  {
    const common::LockGuard lock(mutex_);
    stopped_ = true;
  }
  changed_.notify_all();
}

void Player::run() {
  auto start = Clock::now();
  auto due = start;
  while (true) {
    {
      common::UniqueLock lock(mutex_);
      if (changed_.wait_until(lock.native(), due, [this] { return over(); })) return;
    }
    if (const auto now = Clock::now(); now > due + kPatience) {
      const auto lost = (now - due) / kPeriod * kPeriod;
      start += lost;
      due += lost;
      caption_start_ -= lost;
    }
    const auto elapsed = due - start;
    if (script_.audio) play_audio();
    while (fps_ > 0 && !over() &&
           std::chrono::duration<double>(elapsed).count() * fps_ >= pictures_) {
      play_picture();
    }
    play_captions(elapsed);
    due += kPeriod;
  }
}

// Leaving a file in the middle is no failure.
void Player::report(const std::string& key, const std::string& error) const {
  if (!over()) SARNET_LOG(kError, key << ": " << error);
}

void Player::play_audio() {
  if (tone_) {
    tone_->fill(block_);
  } else {
    // After the end of the file its participant stays, silent.
    std::size_t frames = 0;
    if (audio_file_) {
      const ReadStatus status = audio_file_->read(block_, frames);
      if (status == ReadStatus::kError) report(script_.audio->file_key, audio_file_->error());
      if (status != ReadStatus::kOk) audio_file_.reset();
    }
    std::fill(block_.begin() + static_cast<std::ptrdiff_t>(2 * frames), block_.end(),
              std::int16_t{0});
  }
  stream_->on_audio(kFormat, block_);
}

void Player::play_picture() {
  const std::uint32_t number = pictures_++;
  // An unwatched card need not be painted; a file must keep its position.
  if (card_ && !stream_->watched()) return;
  const int width = card_ ? card_->width() : video_file_->width();
  const int height = card_ ? card_->height() : video_file_->height();
  const PictureRef picture = pool_.acquire(width, height);
  if (!picture) return;
  if (card_) {
    card_->paint(number, picture->mutable_view());
  } else {
    const ReadStatus status = video_file_->read(picture->mutable_view());
    if (status == ReadStatus::kError) report(script_.video->file_key, video_file_->error());
    if (status != ReadStatus::kOk) {
      fps_ = 0;
      return;
    }
  }
  stream_->on_picture(picture);
}

void Player::play_captions(Clock::duration elapsed) {
  const auto& captions = script_.captions;
  while (!captions.empty()) {
    if (next_caption_ == captions.size()) {
      const milliseconds turn(script_.captions_repeat_ms);
      if (turn.count() <= 0 || elapsed < caption_start_ + turn) return;
      caption_start_ += turn;
      next_caption_ = 0;
    }
    const ScenarioCaption& caption = captions[next_caption_];
    if (elapsed < caption_start_ + milliseconds(caption.at_ms)) return;
    stream_->on_caption(caption.text, caption.final_text);
    ++next_caption_;
  }
}

}  // namespace sarnet
