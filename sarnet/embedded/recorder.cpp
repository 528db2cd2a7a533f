#include "embedded/recorder.h"

#include <json/writer.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <utility>

#include "base/log.h"
#include "base/thread_keeper.h"

namespace sarnet {
namespace {

struct FolderNumbers {
  std::mutex mutex;
  std::map<std::string, int> next;
};

FolderNumbers& folder_numbers() {
  static auto* const numbers = new FolderNumbers;
  return *numbers;
}

int next_number(const std::string& folder) {
  auto& numbers = folder_numbers();
  const std::lock_guard lock(numbers.mutex);
  return ++numbers.next[folder];
}

bool used_before(const std::string& folder) {
  auto& numbers = folder_numbers();
  const std::lock_guard lock(numbers.mutex);
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

std::string audio_name(int publication) { return "audio-" + std::to_string(publication) + ".wav"; }
std::string video_name(int publication) { return "video-" + std::to_string(publication) + ".y4m"; }

}  // namespace

std::shared_ptr<Recorder> Recorder::create(const std::string& folder, std::string& error) {
  const FilePlugin* const plugin = FilePlugin::load(error);
  if (plugin == nullptr) return nullptr;
  std::error_code status;
  std::filesystem::create_directories(folder, status);
  const auto mode = used_before(folder) ? std::ios::app : std::ios::trunc;
  std::ofstream log(std::filesystem::path(folder) / "events.jsonl", mode);
  if (!log) {
    error = "cannot write to the recording folder '" + folder + "'";
    if (status) error += ": " + status.message();
    return nullptr;
  }
  auto recorder = std::make_shared<Recorder>(*plugin, folder, std::move(log));
  ThreadKeeper::instance().start("srn-recorder", [recorder] { recorder->run(); });
  return recorder;
}

Recorder::Recorder(const FilePlugin& plugin, std::string folder, std::ofstream log)
    : plugin_(plugin), folder_(std::move(folder)), log_(std::move(log)) {}

std::string Recorder::line_of(const char* event, Json::Value fields, Clock::time_point at) {
  using std::chrono::system_clock;
  const auto ago = std::chrono::duration_cast<system_clock::duration>(Clock::now() - at);
  fields["time"] = utc(system_clock::now() - ago);
  fields["at"] = std::chrono::duration<double>(at.time_since_epoch()).count();
  fields["event"] = event;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["precision"] = 6;  // microseconds
  builder["precisionType"] = "decimal";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, fields);
}

Recorder::Item* Recorder::reserve() {
  if (closed_ || size_ == queue_.size()) return nullptr;
  return &queue_[(first_ + size_++) % queue_.size()];
}

int Recorder::begin_publication(const std::string& name, bool has_audio, bool has_video, int fps) {
  const int publication = next_number(folder_);
  {
    const std::lock_guard lock(mutex_);
    losses_[publication];
    fps_[publication] = std::max(fps, 1);
  }
  Json::Value fields(Json::objectValue);
  fields["publication"] = publication;
  fields["name"] = name;
  if (has_audio) fields["audio"] = audio_name(publication);
  if (has_video) fields["video"] = video_name(publication);
  log("publication", std::move(fields));
  return publication;
}

void Recorder::end_publication(int publication) {
  {
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
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

void Recorder::log(const char* event, Json::Value fields) {
  std::string line = line_of(event, std::move(fields));
  {
    const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  changed_.notify_one();
}

void Recorder::run() {
  Item item;
  while (true) {
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [this] { return closed_ || size_ > 0; });
      if (size_ == 0) break;
      std::swap(item, queue_[first_]);
      first_ = (first_ + 1) % queue_.size();
      --size_;
      if (item.kind == Kind::kPicture) --pictures_queued_;
    }
    write(item);
    item.picture = {};
  }
  // Publications whose end found the queue full.
  while (!files_.empty()) finish(files_.begin()->first);
  Json::Value fields(Json::objectValue);
  fields["lines_lost"] = Json::UInt64(lines_lost_);
  log_ << line_of("closed", std::move(fields)) << '\n' << std::flush;
  if (!log_) SARNET_LOG(kError, "The event log in '" << folder_ << "' could not be written");
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
      log_ << item.line << '\n' << std::flush;
      break;
  }
}

void Recorder::fail(Files& files, int publication, const std::string& error) {
  if (std::exchange(files.failed, true)) return;
  SARNET_LOG(kError, "Recording: " << error);
  Json::Value fields(Json::objectValue);
  fields["publication"] = publication;
  fields["text"] = error;
  log_ << line_of("recording_failed", std::move(fields)) << '\n' << std::flush;
}

void Recorder::mark(Timeline& due, const Item& item, const char* place, std::uint64_t number) {
  if (due && std::chrono::abs(item.came - *due) <= kTolerance) return;
  due = item.came;
  Json::Value fields(Json::objectValue);
  fields["publication"] = item.publication;
  fields[place] = Json::UInt64(number);
  log_ << line_of("mark", std::move(fields), item.came) << '\n' << std::flush;
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
  const std::lock_guard lock(mutex_);
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
    const std::lock_guard lock(mutex_);
    loss = losses_[publication];
    losses_.erase(publication);
    fps_.erase(publication);
  }
  if (files.audio && !files.audio->close()) fail(files, publication, files.audio->error());
  if (files.video && !files.video->close()) fail(files, publication, files.video->error());
  Json::Value fields(Json::objectValue);
  fields["publication"] = publication;
  if (files.audio) {
    fields["audio"] = audio_name(publication);
    fields["audio_rate"] = files.format.rate;
    fields["audio_channels"] = files.format.channels;
    fields["audio_frames"] = Json::UInt64(files.audio_frames);
  }
  if (files.video) {
    fields["video"] = video_name(publication);
    fields["width"] = files.width;
    fields["height"] = files.height;
    fields["pictures"] = Json::UInt64(files.pictures);
  }
  fields["audio_frames_lost"] = Json::UInt64(loss.audio_frames);
  fields["pictures_lost"] = Json::UInt64(loss.pictures);
  log_ << line_of("recorded", std::move(fields)) << '\n' << std::flush;
}

}  // namespace sarnet
