#include "embedded/recorder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <utility>

#include "base/log.h"
#include "base/regular_file.h"
#include "base/thread_keeper.h"

namespace sarnet {
namespace {

struct FolderNumbers {
  common::Mutex mutex;
  std::map<std::string, int> next;
};

FolderNumbers& folder_numbers() {
  static auto* const numbers = new FolderNumbers;
  return *numbers;
}

int next_number(const std::string& folder) {
  auto& numbers = folder_numbers();
  const common::LockGuard lock(numbers.mutex);
  return ++numbers.next[folder];
}

bool used_before(const std::string& folder) {
  auto& numbers = folder_numbers();
  const common::LockGuard lock(numbers.mutex);
  return !numbers.next.emplace(folder, 0).second;
}

std::string utc(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count() % 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
  char text[48];
  std::snprintf(text, sizeof text, "%s.%03dZ", date, static_cast<int>(millis));
  return text;
}

std::chrono::nanoseconds length_of(std::size_t samples, const AudioFormat& format) {
  const auto frames = static_cast<std::int64_t>(samples) / format.channels;
  return std::chrono::nanoseconds(std::chrono::seconds(frames)) / format.rate;
}

std::string log_path(const std::string& folder) { return folder + "/events.jsonl"; }
std::string audio_name(int publication) { return "audio-" + std::to_string(publication) + ".wav"; }
std::string video_name(int publication) { return "video-" + std::to_string(publication) + ".y4m"; }

}  // namespace

std::shared_ptr<Recorder> Recorder::create(const std::string& folder, std::string& error) {
  const FilePlugin* const plugin = FilePlugin::load(error);
  if (plugin == nullptr) return nullptr;
  std::error_code status;
  std::filesystem::create_directories(folder, status);
  if (status) {
    error = "cannot make the recording folder '" + folder + "': " + status.message();
    return nullptr;
  }
  std::string reason;
  const int log = create_regular(log_path(folder), used_before(folder), reason);
  if (log < 0) {
    error = "cannot write '" + log_path(folder) + "': " + reason;
    return nullptr;
  }
  auto recorder = std::make_shared<Recorder>(*plugin, folder, log);
  ThreadKeeper::instance().start("srn-recorder", [recorder] { recorder->run(); });
  return recorder;
}

Recorder::Recorder(const FilePlugin& plugin, std::string folder, int log)
    : plugin_(plugin), folder_(std::move(folder)), log_(log) {}

Recorder::~Recorder() { ::close(log_); }

std::string Recorder::line_of(const char* event, nlohmann::json fields, Clock::time_point at) {
  using std::chrono::system_clock;
  const auto ago = std::chrono::duration_cast<system_clock::duration>(Clock::now() - at);
  const double seconds = std::chrono::duration<double>(at.time_since_epoch()).count();
  fields["time"] = utc(system_clock::now() - ago);
  fields["at"] = std::round(seconds * 1e6) / 1e6;
  fields["event"] = event;
  return fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}

// Logs the first failure only.
void Recorder::write_line(const std::string& line) {
  for (std::size_t done = 0; done < line.size() && !log_failed_;) {
    const ssize_t count = ::write(log_, line.data() + done, line.size() - done);
    if (count >= 0) {
      done += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      log_failed_ = true;
      SARNET_LOG(kError, "Recording: cannot write '" << log_path(folder_) << "': "
                                                     << std::generic_category().message(errno));
    }
  }
}

// Writes to a removed file succeed and leave nothing behind.
void Recorder::look_after_log() {
  struct stat about {};
  if (::fstat(log_, &about) == 0 && about.st_nlink == 0) {
    SARNET_LOG(kError, "Recording: '" << log_path(folder_) << "' was removed while it was written");
  }
}

Recorder::Item* Recorder::reserve() {
  if (closed_ || size_ == queue_.size()) return nullptr;
  return &queue_[(first_ + size_++) % queue_.size()];
}

int Recorder::begin_publication(const std::string& name, bool has_audio, bool has_video, int fps) {
  const int publication = next_number(folder_);
  {
    const common::LockGuard lock(mutex_);
    losses_[publication];
    fps_[publication] = std::max(fps, 1);
  }
  nlohmann::json fields;
  fields["publication"] = publication;
  fields["name"] = name;
  if (has_audio) fields["audio"] = audio_name(publication);
  if (has_video) fields["video"] = video_name(publication);
  log("publication", std::move(fields));
  return publication;
}

void Recorder::end_publication(int publication) {
  {
    const common::LockGuard lock(mutex_);
    if (Item* const item = reserve()) {
      item->kind = Kind::kEnd;
      item->publication = publication;
    }
  }
  changed_.notify_one();
}

void Recorder::add_audio(int publication, const AudioFormat& format,
                         std::span<const std::int16_t> samples) {
  auto came = Clock::now();
  {
    const common::LockGuard lock(mutex_);
    while (!samples.empty()) {
      const std::size_t count = std::min(samples.size(), kMaxSamples);
      if (Item* const item = reserve()) {
        item->kind = Kind::kAudio;
        item->publication = publication;
        item->came = came;
        item->format = format;
        item->samples = count;
        std::copy_n(samples.begin(), count, item->data.begin());
      } else if (const auto loss = losses_.find(publication); loss != losses_.end()) {
        loss->second.audio_frames += count / static_cast<std::size_t>(format.channels);
      }
      samples = samples.subspan(count);
      came += length_of(count, format);
    }
  }
  changed_.notify_one();
}

void Recorder::add_picture(int publication, const PictureRef& picture) {
  const auto came = Clock::now();
  {
    const common::LockGuard lock(mutex_);
    Item* const item = pictures_queued_ < kMaxPictures ? reserve() : nullptr;
    if (item != nullptr) {
      item->kind = Kind::kPicture;
      item->publication = publication;
      item->came = came;
      item->picture = picture;
      ++pictures_queued_;
    } else if (const auto loss = losses_.find(publication); loss != losses_.end()) {
      ++loss->second.pictures;
    }
  }
  changed_.notify_one();
}

void Recorder::log(const char* event, nlohmann::json fields) {
  std::string line = line_of(event, std::move(fields));
  {
    const common::LockGuard lock(mutex_);
    if (Item* const item = reserve()) {
      item->kind = Kind::kLine;
      item->line = std::move(line);
    } else {
      ++lines_lost_;
    }
  }
  changed_.notify_one();
}

void Recorder::close() {
  {
    const common::LockGuard lock(mutex_);
    closed_ = true;
    closed_at_ = Clock::now();
  }
  changed_.notify_one();
}

void Recorder::run() {
  Item item;
  while (true) {
    {
      common::UniqueLock lock(mutex_);
      changed_.wait(lock.native(), [this]() REQUIRES(mutex_) { return closed_ || size_ > 0; });
      if (size_ == 0) break;
      std::swap(item, queue_[first_]);
      first_ = (first_ + 1) % queue_.size();
      --size_;
      if (item.kind == Kind::kPicture) --pictures_queued_;
      if (closed_ && Clock::now() > closed_at_ + kLastWrites && lose(item)) continue;
    }
    write(item);
    item.picture = {};
  }
  // Publications whose end did not fit into the queue.
  while (!files_.empty()) finish(files_.begin()->first);
  nlohmann::json fields;
  {
    const common::LockGuard lock(mutex_);
    fields["lines_lost"] = lines_lost_;
  }
  write_line(line_of("closed", std::move(fields)));
  look_after_log();
}

// False for anything but media.
bool Recorder::lose(Item& item) {
  Loss& loss = losses_[item.publication];
  if (item.kind == Kind::kPicture) {
    ++loss.pictures;
    item.picture = {};
    return true;
  }
  if (item.kind != Kind::kAudio) return false;
  loss.audio_frames += item.samples / static_cast<std::size_t>(item.format.channels);
  return true;
}

void Recorder::write(Item& item) {
  switch (item.kind) {
    case Kind::kAudio:
      write_audio(files_[item.publication], item);
      break;
    case Kind::kPicture:
      write_picture(files_[item.publication], item);
      break;
    case Kind::kEnd:
      finish(item.publication);
      break;
    case Kind::kLine:
      write_line(item.line);
      break;
  }
}

void Recorder::fail(Files& files, int publication, const std::string& error) {
  if (std::exchange(files.failed, true)) return;
  SARNET_LOG(kError, "Recording: " << error);
  nlohmann::json fields;
  fields["publication"] = publication;
  fields["text"] = error;
  write_line(line_of("recording_failed", std::move(fields)));
}

void Recorder::mark(Timeline& due, const Item& item, const char* place, std::uint64_t number) {
  if (due && std::chrono::abs(item.came - *due) <= kTolerance) return;
  due = item.came;
  nlohmann::json fields;
  fields["publication"] = item.publication;
  fields[place] = number;
  write_line(line_of("mark", std::move(fields), item.came));
}

void Recorder::write_audio(Files& files, const Item& item) {
  std::string error;
  if (!files.audio && !files.failed) {
    files.format = item.format;
    files.audio =
        plugin_.create_audio(folder_ + "/" + audio_name(item.publication), item.format, error);
    if (!files.audio) fail(files, item.publication, error);
  }
  if (!files.audio) return;
  if (item.format != files.format) {
    fail(files, item.publication, "the format of the captured audio changed");
  } else if (files.audio->write({item.data.data(), item.samples})) {
    mark(files.audio_due, item, "audio_frame", files.audio_frames);
    *files.audio_due += length_of(item.samples, item.format);
    files.audio_frames += item.samples / static_cast<std::size_t>(item.format.channels);
  } else {
    fail(files, item.publication, files.audio->error());
  }
}

int Recorder::fps_of(int publication) {
  const common::LockGuard lock(mutex_);
  const auto found = fps_.find(publication);
  return found == fps_.end() ? 30 : found->second;
}

void Recorder::write_picture(Files& files, const Item& item) {
  const Picture& picture = *item.picture;
  std::string error;
  if (!files.video && !files.failed) {
    files.width = picture.width();
    files.height = picture.height();
    files.fps = fps_of(item.publication);
    files.video = plugin_.create_video(folder_ + "/" + video_name(item.publication), files.width,
                                       files.height, files.fps, error);
    if (!files.video) fail(files, item.publication, error);
  }
  if (!files.video) return;
  if (picture.width() != files.width || picture.height() != files.height) {
    fail(files, item.publication, "the size of the pictures changed");
  } else if (files.video->write(picture.view())) {
    mark(files.picture_due, item, "picture", files.pictures);
    *files.picture_due += std::chrono::nanoseconds(std::chrono::seconds(1)) / files.fps;
    ++files.pictures;
  } else {
    fail(files, item.publication, files.video->error());
  }
}

void Recorder::finish(int publication) {
  Files files = std::move(files_[publication]);
  files_.erase(publication);
  Loss loss;
  {
    const common::LockGuard lock(mutex_);
    loss = losses_[publication];
    losses_.erase(publication);
    fps_.erase(publication);
  }
  if (files.audio && !files.audio->close()) fail(files, publication, files.audio->error());
  if (files.video && !files.video->close()) fail(files, publication, files.video->error());
  nlohmann::json fields;
  fields["publication"] = publication;
  if (files.audio) {
    fields["audio"] = audio_name(publication);
    fields["audio_rate"] = files.format.rate;
    fields["audio_channels"] = files.format.channels;
    fields["audio_frames"] = files.audio_frames;
  }
  if (files.video) {
    fields["video"] = video_name(publication);
    fields["width"] = files.width;
    fields["height"] = files.height;
    fields["pictures"] = files.pictures;
  }
  fields["audio_frames_lost"] = loss.audio_frames;
  fields["pictures_lost"] = loss.pictures;
  write_line(line_of("recorded", std::move(fields)));
}

}  // namespace sarnet
