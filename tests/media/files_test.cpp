#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "embedded/companion_media.h"
#include "plugins/file_plugin.h"

namespace sarnet {
namespace {

namespace fs = std::filesystem;

class FilesTest : public testing::Test {
 protected:
  FilesTest() {
    std::string pattern = (fs::temp_directory_path() / "sarnet_files_XXXXXX").string();
    folder_ = mkdtemp(pattern.data());
    plugin_ = FilePlugin::load_from(SARNET_FILES_PATH, error_);
  }
  ~FilesTest() override { fs::remove_all(folder_); }

  void SetUp() override { ASSERT_NE(plugin_, nullptr) << error_; }

  std::string path(const std::string& name) const { return (folder_ / name).string(); }

  std::string put(const std::string& name, const std::string& bytes) const {
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }

  static std::string bytes_of(const std::string& file) {
    std::ifstream stream(file, std::ios::binary);
    std::string bytes(fs::file_size(file), '\0');
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
  }

  // Ten test cards, numbered, at 10 fps.
  std::string card_file(int width, int height) {
    std::string file = path("card.y4m");
    const auto writer = plugin_->create_video(file, width, height, 10, error_);
    EXPECT_NE(writer, nullptr) << error_;
    const TestCard card(width, height);
    const PictureRef picture = pool_.acquire(width, height);
    for (std::uint32_t number = 0; number < 10; ++number) {
      card.paint(number, picture->mutable_view());
      EXPECT_TRUE(writer->write(picture->view())) << writer->error();
    }
    EXPECT_TRUE(writer->close());
    return file;
  }

  fs::path folder_;
  std::string error_;
  const FilePlugin* plugin_ = nullptr;
  PicturePool pool_{4};
};

std::vector<std::int16_t> noise(std::size_t samples) {
  std::mt19937 random(5);
  std::vector<std::int16_t> result(samples);
  for (auto& sample : result) sample = static_cast<std::int16_t>(random());
  return result;
}

TEST_F(FilesTest, WavComesBackByteExactAndLoopsWithoutAGap) {
  for (const AudioFormat format : {AudioFormat{48000, 2}, AudioFormat{11025, 1}}) {
    const std::string file = path("sound.wav");
    const std::vector<std::int16_t> sent = noise(12345 * static_cast<std::size_t>(format.channels));
    const auto writer = plugin_->create_audio(file, format, error_);
    ASSERT_NE(writer, nullptr) << error_;
    for (std::size_t i = 0; i < sent.size(); i += 480) {
      ASSERT_TRUE(
          writer->write(std::span(sent).subspan(i, std::min<std::size_t>(480, sent.size() - i))));
    }
    ASSERT_TRUE(writer->close());
    EXPECT_EQ(fs::file_size(file), 44 + sent.size() * 2);

    const auto once = plugin_->open_audio(file, format, false, {}, error_);
    const auto looped = plugin_->open_audio(file, format, true, {}, error_);
    ASSERT_TRUE(once && looped) << error_;
    std::size_t frames = 0;
    std::vector<std::int16_t> heard(sent.size() + 100);
    EXPECT_EQ(once->read(heard, frames), ReadStatus::kEnd);
    EXPECT_EQ(frames, 12345U);
    EXPECT_TRUE(std::equal(sent.begin(), sent.end(), heard.begin()));
    EXPECT_NEAR(once->duration(), 12345.0 / format.rate, 0.01);
    const auto converted = plugin_->open_audio(file, {16000, 2}, false, {}, error_);
    std::vector<std::int16_t> pairs(60'000);
    EXPECT_EQ(converted->read(pairs, frames), ReadStatus::kEnd);
    EXPECT_NEAR(static_cast<double>(frames), 12345.0 * 16000 / format.rate, 3);

    heard.resize(sent.size() * 3);
    EXPECT_EQ(looped->read(heard, frames), ReadStatus::kOk);
    for (std::size_t i = 0; i < heard.size(); ++i) ASSERT_EQ(heard[i], sent[i % sent.size()]) << i;
  }
}

TEST_F(FilesTest, AWavThatNobodyClosedIsWholeUpToTheLastSecond) {
  const std::string file = path("killed.wav");
  const auto writer = plugin_->create_audio(file, {8000, 1}, error_);
  ASSERT_NE(writer, nullptr) << error_;
  const std::vector<std::int16_t> period = noise(80);
  for (int i = 0; i < 250; ++i) ASSERT_TRUE(writer->write(period));
  const std::string bytes = bytes_of(file);
  ASSERT_GE(bytes.size(), 44 + 2 * 16000U);
  std::uint32_t length = 0;
  std::memcpy(&length, bytes.data() + 40, sizeof length);
  EXPECT_EQ(length, 2 * 16000U);
  EXPECT_EQ(bytes.substr(36, 4), "data");
}

TEST_F(FilesTest, Y4mHoldsThePicturesByteForByte) {
  for (const auto& [width, height] : {std::pair{64, 48}, std::pair{65, 35}}) {
    const std::string file = card_file(width, height);
    const std::string bytes = bytes_of(file);
    const TestCard card(width, height);
    const PictureRef expected = pool_.acquire(width, height);
    const PictureRef read = pool_.acquire(width, height);
    std::size_t position = bytes.find('\n') + 1;
    EXPECT_NE(bytes.substr(0, position).find("F10:1"), std::string::npos);
    const auto reader = plugin_->open_video(file, 0, 0, 0, false, {}, error_);
    ASSERT_NE(reader, nullptr) << error_;
    EXPECT_EQ(reader->width(), width);
    EXPECT_EQ(reader->fps(), 10);
    for (std::uint32_t number = 0; number < 10; ++number) {
      card.paint(number, expected->mutable_view());
      ASSERT_EQ(bytes.substr(position, 6), "FRAME\n");
      EXPECT_EQ(std::memcmp(bytes.data() + position + 6, expected->data(), expected->size()), 0);
      position += 6 + expected->size();
      ASSERT_EQ(reader->read(read->mutable_view()), ReadStatus::kOk);
      EXPECT_EQ(std::memcmp(read->data(), expected->data(), expected->size()), 0);
    }
    EXPECT_EQ(position, bytes.size());
    EXPECT_EQ(reader->read(read->mutable_view()), ReadStatus::kEnd);
  }
}

TEST_F(FilesTest, VideoFollowsTheRateAndSizeAskedFor) {
  struct Row {
    double fps;
    int width, height;
    bool loop;
    std::vector<std::uint32_t> numbers;
  };
  const std::string file = card_file(128, 96);
  const Row rows[] = {{30, 64, 48, false, {0, 0, 0, 1, 1, 1, 2, 2, 2, 3}},
                      {5, 256, 0, false, {0, 2, 4, 6, 8}},
                      {10, 0, 48, true, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 1, 2, 3}},
                      {5, 63, 47, true, {0, 2, 4, 6, 8, 0, 2, 4, 6, 8, 0}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fps);
    const auto reader =
        plugin_->open_video(file, row.width, row.height, row.fps, row.loop, {}, error_);
    ASSERT_NE(reader, nullptr) << error_;
    const PictureRef picture = pool_.acquire(reader->width(), reader->height());
    for (const std::uint32_t number : row.numbers) {
      ASSERT_EQ(reader->read(picture->mutable_view()), ReadStatus::kOk) << reader->error();
      EXPECT_EQ(TestCard::read_number(picture->view()), number);
    }
  }
}

TEST_F(FilesTest, AStillPictureStandsStill) {
  // Full-range red becomes studio-range red.
  std::string pixels;
  for (int i = 0; i < 4 * 3; ++i) pixels += std::string("\xff\0\0", 3);
  const std::string file = put("red.ppm", "P6 4 3 255\n" + pixels);
  for (const bool loop : {true, false}) {
    const auto reader = plugin_->open_video(file, 0, 0, 0, loop, {}, error_);
    ASSERT_NE(reader, nullptr) << error_;
    EXPECT_EQ(reader->width(), 4);
    EXPECT_EQ(reader->height(), 3);
    const PictureRef picture = pool_.acquire(4, 3);
    EXPECT_EQ(reader->read(picture->mutable_view()), ReadStatus::kOk);
    EXPECT_NEAR(picture->view().y[0], 81, 2);
    EXPECT_NEAR(picture->view().v[3], 240, 2);
    EXPECT_EQ(reader->read(picture->mutable_view()), loop ? ReadStatus::kOk : ReadStatus::kEnd);
  }
}

TEST_F(FilesTest, ReadingEndsWhenItIsInterruptedOrGetsNowhere) {
  const std::string sound = put("sound.wav", "");
  ASSERT_TRUE(plugin_->create_audio(sound, {8000, 1}, error_)->write(noise(8000)));
  const std::string endless = put("endless.wav", bytes_of(sound).substr(0, 36));
  fs::resize_file(endless, std::uintmax_t{1} << 33);
  int asked = 0;
  const auto soon = [&asked] { return ++asked > 5; };
  EXPECT_EQ(plugin_->open_audio(endless, {48000, 1}, true, soon, error_), nullptr);
  EXPECT_LT(asked, 100);
  EXPECT_EQ(plugin_->open_audio(endless, {48000, 1}, true, {}, error_), nullptr);
  EXPECT_NE(error_.find("no sound or picture in its first 64 MiB"), std::string::npos) << error_;

  bool stop = false;
  const auto reader = plugin_->open_audio(
      sound, {48000, 1}, true, [&] { return stop; }, error_);
  ASSERT_NE(reader, nullptr) << error_;
  std::size_t frames = 0;
  std::vector<std::int16_t> block(480'000);
  EXPECT_EQ(reader->read(block, frames), ReadStatus::kOk);
  stop = true;
  EXPECT_EQ(reader->read(block, frames), ReadStatus::kError);
  const auto shrinking = plugin_->open_audio(sound, {48000, 1}, true, {}, error_);
  fs::resize_file(sound, 44);
  EXPECT_EQ(shrinking->read(block, frames), ReadStatus::kError);

  const std::string film = card_file(64, 48);
  std::string fast = bytes_of(film);
  fast.replace(fast.find("F10:1"), 5, "F999:1");
  fast.resize(fast.find("FRAME") + 2 * (6 + 64 * 48 * 3 / 2));
  const auto brief = plugin_->open_video(put("fast.y4m", fast), 0, 0, 30, true, {}, error_);
  ASSERT_NE(brief, nullptr) << error_;
  const PictureRef picture = pool_.acquire(64, 48);
  EXPECT_EQ(brief->read(picture->mutable_view()), ReadStatus::kOk);
  EXPECT_EQ(brief->read(picture->mutable_view()), ReadStatus::kError);
  EXPECT_NE(brief->error().find("too short to be repeated"), std::string::npos);
}

TEST_F(FilesTest, ErrorsNameTheFileAndTheReason) {
  const std::string text = put("words.txt", "These are words and no media at all.\n");
  const std::string video = card_file(64, 48);
  const std::string cut = put("cut.wav", "RIFF\x24");
  const AudioFormat format{48000, 1};
  const std::vector<std::pair<std::string, const char*>> rows{{path("missing.wav"), "No such file"},
                                                              {text, "Invalid data"},
                                                              {cut, "cannot read"},
                                                              {video, "there is no audio in it"},
                                                              {folder_.string(), "Is a directory"},
                                                              {"/dev/zero", "not a regular file"}};
  for (const auto& [file, reason] : rows) {
    error_.clear();
    EXPECT_EQ(plugin_->open_audio(file, format, true, {}, error_), nullptr);
    EXPECT_NE(error_.find("'" + file + "'"), std::string::npos) << error_;
    EXPECT_NE(error_.find(reason), std::string::npos) << error_;
  }
  EXPECT_EQ(plugin_->open_video(path("none.png"), 0, 0, 0, true, {}, error_), nullptr);
  EXPECT_NE(error_.find("none.png"), std::string::npos);
  EXPECT_EQ(plugin_->create_audio(path("no/folder.wav"), format, error_), nullptr);
  EXPECT_NE(error_.find("cannot write"), std::string::npos) << error_;
  EXPECT_EQ(plugin_->create_video(path("no/folder.y4m"), 4, 4, 30, error_), nullptr);

  EXPECT_EQ(FilePlugin::load_from(path("libnothing.so"), error_), nullptr);
  EXPECT_NE(error_.find("libnothing.so"), std::string::npos) << error_;
}

}  // namespace
}  // namespace sarnet
