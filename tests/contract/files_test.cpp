#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include "contract/harness.h"

namespace contract {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

std::string little_endian(std::uint32_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) text += static_cast<char>(value >> (8 * i));
  return text;
}

std::string wav(std::uint32_t rate, std::uint32_t channels, std::uint32_t frames,
                const std::string& between = "") {
  const std::string data(std::size_t{2} * frames * channels, '\x11');
  return "RIFF" + little_endian(static_cast<std::uint32_t>(data.size()) + 36, 4) + "WAVEfmt " +
         little_endian(16, 4) + little_endian(1, 2) + little_endian(channels, 2) +
         little_endian(rate, 4) + little_endian(rate * channels * 2, 4) +
         little_endian(channels * 2, 2) + little_endian(16, 2) + between + "data" +
         little_endian(static_cast<std::uint32_t>(data.size()), 4) + data;
}

std::string y4m(const std::string& size, const std::string& rate, int pictures) {
  std::string text = "YUV4MPEG2 " + size + " F" + rate + " Ip A1:1 C420jpeg\n";
  for (int i = 0; i < pictures; ++i) text += "FRAME\n" + std::string(16 * 16 * 3 / 2, '\x50');
  return text;
}

std::string contents(const fs::path& file) {
  std::ostringstream text;
  text << std::ifstream(file, std::ios::binary).rdbuf();
  return text.str();
}

// Threads of this process that open, play or record files.
int file_threads() {
  int count = 0;
  std::error_code gone;
  for (const auto& task : fs::directory_iterator("/proc/self/task", gone)) {
    const std::string name = contents(task.path() / "comm");
    count += static_cast<int>(name == "srn-room\n" || name == "srn-player\n" ||
                              name == "srn-recorder\n");
  }
  return count;
}

// Leaves, and finds all threads of the session gone within a second, on a busy machine within four.
void leave(Participant& program) {
  const auto begin = std::chrono::steady_clock::now();
  program.remove();
  EXPECT_TRUE(eventually([] { return file_threads() == 0; }));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST(EmbeddedFiles, AreRefusedByNameOrPlayedAndEndWithTheirSession) {
  struct Row {
    const char* name;
    std::string bytes;
    const char* more;   // JSON
    const char* error;  // of the key that names the file; empty: it is played
  };
  const std::string metadata = "LIST" + little_endian(0xfffffff0, 4);
  const std::string thirty = R"(, "width": 16, "height": 16, "fps": 30)";
  const Row rows[] = {
      {"a.wav", wav(768'000'000, 1, 400), "", "sample rate 768000000 Hz is beyond 4000 to 384000"},
      {"a.wav", wav(1, 1, 4000), "", "sample rate 1 Hz is beyond"},
      {"a.wav", wav(48000, 0, 4000), "", "there is no audio in it"},
      {"a.wav", wav(48000, 1, 1), "", "too short to be repeated"},
      {"a.wav", wav(48000, 1, 1), R"(, "loop": false)", ""},
      {"a.wav", wav(48000, 1, 0), "", "there is no sound in it"},
      {"a.wav", wav(48000, 1, 4000, metadata), "", "cannot read"},
      {"a.wav", wav(384'000, 2, 40'000), "", ""},
      {"a.wav", wav(48000, 1, 48'000).substr(0, 20'000), "", ""},
      {"a.wav", "#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXTINF:5,\nb.wav\n", "",
       "it names other files"},
      {"v.y4m", y4m("W16 H16", "2000000000:1", 2), thirty.c_str(), "frame rate 2000000000 is"},
      {"v.y4m", y4m("W16 H16", "1000000:1", 50), thirty.c_str(), "frame rate 1000000 is beyond"},
      {"v.y4m", y4m("W16 H16", "1000000:1", 50), "", "frame rate 1000000 is beyond"},
      {"v.y4m", y4m("W16 H16", "1000:1", 2), thirty.c_str(), ""},
      {"v.y4m", y4m("W16 H16", "1:0", 50), thirty.c_str(), ""},
      {"v.y4m", y4m("W16 H16", "0:1", 50), thirty.c_str(), ""},
      {"v.y4m", y4m("W0 H16", "25:1", 2), thirty.c_str(), "cannot read"},
      {"v.y4m", y4m("W100000 H100000", "25:1", 2), thirty.c_str(), "cannot read"},
      {"v.y4m", y4m("W16 H16", "25:1", 50).substr(0, 1500), "", ""},
  };
  LibraryUse library;
  for (const Row& row : rows) {
    SCOPED_TRACE("row " + std::to_string(&row - rows) + row.more);
    const std::string kind = row.name[0] == 'a' ? "audio" : "video";
    ScenarioFile scenario(R"({"participants": [{"id": "x"}, {"id": "peer", ")" + kind +
                          R"(": {"file": ")" + row.name + "\"" + row.more + "}}]}");
    std::ofstream(scenario.folder() / row.name, std::ios::binary) << row.bytes;
    Participant program(scenario.place());
    ASSERT_EQ(program.connect(), SRN_SUCCESS);
    if (*row.error != '\0') {
      ASSERT_TRUE(program.log.await("error"));
      const std::string file = (scenario.folder() / row.name).string();
      EXPECT_THAT(program.log.lines().back(),
                  AllOf(HasSubstr("scenario.json': participants[1]." + kind + ".file: "),
                        HasSubstr("'" + file + "'"), HasSubstr(row.error)));
    } else {
      EXPECT_TRUE(program.wait_for_stream());
      EXPECT_TRUE(program.log.await("stream+"));
    }
    leave(program);
  }
}

void limit_files(rlim_t bytes) {
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = bytes;
  setrlimit(RLIMIT_FSIZE, &limit);
}

// The media of a publication go where nothing can be written; the session does not mind.
TEST(EmbeddedFiles, EndWithTheirSessionWhereverItIsRecorded) {
  struct Row {
    const char* name;
    std::function<void(const fs::path&)> make;  // before it is joined
    const char* error;                          // of the session; empty: it is joined
    const char* log;                            // in the recording's log
  };
  const auto fifo = [](const fs::path& path) { ASSERT_EQ(mkfifo(path.c_str(), 0600), 0); };
  const auto full = [](const fs::path& path) { fs::create_symlink("/dev/full", path); };
  const auto folder = [](const fs::path& path) { fs::create_directory(path); };
  const auto nothing = [](const fs::path&) {};
  const Row rows[] = {{"events.jsonl", fifo, "events.jsonl': not a regular file", ""},
                      {"events.jsonl", folder, "events.jsonl': Is a directory", ""},
                      {"audio-1.wav", fifo, "", "not a regular file"},
                      {"audio-1.wav", full, "", "not a regular file"},
                      {"audio-1.wav", folder, "", "Is a directory"},
                      {"full", nothing, "", "audio-1.wav': File too large"},
                      {"removed", nothing, "", ""}};
  LibraryUse library;
  Device device;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name + std::string(row.log) + row.error);
    ScenarioFile scenario(R"({"record": "out"})");
    const fs::path out = scenario.folder() / "out";
    fs::create_directory(out);
    row.make(out / row.name);
    Participant program(scenario.place());
    ASSERT_EQ(program.connect(), SRN_SUCCESS);
    if (*row.error != '\0') {
      ASSERT_TRUE(program.log.await("error"));
      EXPECT_THAT(program.log.lines().back(),
                  AllOf(HasSubstr("scenario.json': record: "), HasSubstr(row.error)));
    } else {
      ASSERT_TRUE(program.log.await("connected"));
      Sender sender({.video = false});
      ASSERT_TRUE(publish(program, sender));
      const std::vector<std::int16_t> block(960);
      const Periodic periodic(std::chrono::milliseconds(10),
                              [&] { srn_audio_device_write_capture_data(block.data(), 480); });
      if (std::string(row.name) == "full") limit_files(20'000);
      if (std::string(row.name) == "removed") fs::remove_all(out);
      EXPECT_TRUE(eventually([&] {
        const std::string log = contents(out / "events.jsonl");
        return *row.log == '\0' || log.find("recording_failed") != std::string::npos;
      }));
      EXPECT_THAT(contents(out / "events.jsonl"), HasSubstr(row.log));
    }
    leave(program);
    limit_files(RLIM_INFINITY);
  }
}

}  // namespace
}  // namespace contract
