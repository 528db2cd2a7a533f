// Media files, the first byte choosing what they are opened for. A few reads of each.
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/picture.h"
#include "plugins/file_plugin.h"

namespace {

constexpr int kReads = 5;
constexpr long kMaxPixels = 1'000'000;

const sarnet::FilePlugin& plugin() {
  static const sarnet::FilePlugin* const loaded = [] {
    std::string error;
    const auto* files = sarnet::FilePlugin::load_from(SARNET_FILES_PATH, error);
    if (files == nullptr) {
      std::fprintf(stderr, "%s\n", error.c_str());
      std::exit(1);
    }
    return files;
  }();
  return *loaded;
}

void hear(const std::string& path, bool loop) {
  std::string error;
  const auto reader = plugin().open_audio(path, {48000, 2}, loop, {}, error);
  if (reader == nullptr && error.empty()) __builtin_trap();
  std::array<std::int16_t, 960> samples{};
  for (int i = 0; reader != nullptr && i < kReads; ++i) {
    std::size_t frames = 0;
    const sarnet::ReadStatus status = reader->read(samples, frames);
    if (frames > samples.size() / 2) __builtin_trap();
    if (status == sarnet::ReadStatus::kOk && frames != samples.size() / 2) __builtin_trap();
    if (status != sarnet::ReadStatus::kOk) break;
  }
}

void see(const std::string& path, bool loop) {
  std::string error;
  const auto reader = plugin().open_video(path, 0, 0, 0, loop, {}, error);
  if (reader == nullptr && error.empty()) __builtin_trap();
  if (reader == nullptr || long{reader->width()} * reader->height() > kMaxPixels) return;
  static sarnet::PicturePool pool(1);
  const sarnet::PictureRef picture = pool.acquire(reader->width(), reader->height());
  for (int i = 0; i < kReads; ++i) {
    if (reader->read(picture->mutable_view()) != sarnet::ReadStatus::kOk) break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const int file = memfd_create("fuzz", 0);
  if (file < 0 || write(file, data + 1, size - 1) != static_cast<ssize_t>(size - 1)) std::abort();
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  const bool loop = (data[0] & 1) != 0;
  if ((data[0] & 2) != 0) {
    see(path, loop);
  } else {
    hear(path, loop);
  }
  close(file);
  return 0;
}
