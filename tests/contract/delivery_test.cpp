// Media on their way to the program: formats, preferences, slow callbacks, pictures in and out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sarnet/sarnet_statistics.h>

#include <algorithm>
#include <chrono>
#include <cmath>

#include "contract/harness.h"

namespace contract {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

TEST(Delivery, ASlowCallbackLosesTheOldestAndDelaysNobody) {
  LibraryUse library;
  Participant program;
  ASSERT_TRUE(program.join());
  const auto stream = program.wait_for_stream();
  Latch release;
  Receiver slow(stream->get());
  Receiver quick(stream->get());
  slow.on_audio = [&] { release.wait(); };
  slow.on_picture = [&] { release.wait(); };
  ASSERT_EQ(srn_session_subscribe(program.handle, slow.handle), SRN_SUCCESS);
  ASSERT_EQ(srn_session_subscribe(program.handle, quick.handle), SRN_SUCCESS);

  srn_subscriber_statistics figures{};
  figures.size = sizeof figures;
  ASSERT_TRUE(eventually([&] {
    srn_statistics_get_subscriber(slow.handle, &figures);
    return figures.audio_blocks_dropped > 20 && figures.pictures_dropped > 5;
  }));
  EXPECT_EQ(slow.audio_blocks(), 1U);
  EXPECT_GT(quick.audio_blocks(), 100U);
  EXPECT_TRUE(slow.log.await("connected"));
  srn_statistics_get_subscriber(quick.handle, &figures);
  EXPECT_EQ(figures.audio_blocks_dropped, 0U);
  release.open();
  // What waited is no more than the queue holds: it comes at once, and the newest is in it.
  EXPECT_TRUE(eventually([&] { return slow.audio_blocks() > 100 && slow.pictures() > 1; }));
  srn_statistics times{};
  times.size = sizeof times;
  srn_statistics_get(&times);
  EXPECT_GT(times.audio_callbacks.took.max, 1'000'000);
  EXPECT_GT(times.audio_callbacks.waited.max, 1'000'000);
  EXPECT_GT(times.picture_callbacks.took.max, 1'000'000);
  EXPECT_LT(times.audio_callbacks.took.p50, 100'000);

  std::string json(srn_statistics_json(nullptr, 0), '\0');
  json.resize(std::min(srn_statistics_json(json.data(), json.size() + 1), json.size()));
  EXPECT_THAT(
      json, HasSubstr(srn_subscriber_get_subscriber_id(slow.handle) +
                      std::string("\":{\"stream\":\"") + srn_stream_get_id(stream->get()) + "\","));
}

TEST(Delivery, HonoursTheWishesOfASubscriber) {
  LibraryUse library;
  Participant program;
  ASSERT_TRUE(program.join());
  const auto stream = program.wait_for_stream();
  Receiver full(stream->get());
  Receiver small(stream->get(), {.audio = false});
  EXPECT_EQ(srn_subscriber_set_preferred_resolution(small.handle, 0, 240), 1011);
  EXPECT_EQ(srn_subscriber_set_preferred_resolution(small.handle, 0xffffffff, 240), SRN_SUCCESS);
  EXPECT_EQ(srn_subscriber_set_preferred_framerate(small.handle, NAN), 1011);
  EXPECT_EQ(srn_subscriber_set_preferred_framerate(small.handle, -1), 1011);
  EXPECT_EQ(srn_subscriber_set_preferred_framerate(small.handle, 5), SRN_SUCCESS);
  ASSERT_EQ(srn_session_subscribe(program.handle, full.handle), SRN_SUCCESS);
  ASSERT_EQ(srn_session_subscribe(program.handle, small.handle), SRN_SUCCESS);
  ASSERT_TRUE(eventually([&] { return full.pictures() >= 45; }));
  EXPECT_EQ(full.last_picture().width, 640);
  EXPECT_EQ(small.last_picture().width, 320);
  EXPECT_EQ(small.last_picture().height, 240);
  EXPECT_EQ(small.last_picture().bytes.size(), 320U * 240 * 3 / 2);
  EXPECT_GE(small.pictures(), 3U);
  EXPECT_LE(small.pictures(), full.pictures() / 3);
  EXPECT_EQ(small.audio_blocks(), 0U);
  EXPECT_TRUE(small.log.await("draft Hello,"));
  EXPECT_TRUE(full.log.await("caption Hello, this is your companion."));
}

TEST(Frame, WrapsPixelsThatFit) {
  struct Row {
    const char* name;
    int format;
    int width;
    int height;
    std::size_t size;
    bool wraps = true;
  };
  for (const Row& row :
       {Row{"I420", 1, 5, 3, 15 + 2 * 6}, Row{"NV12", 2, 4, 4, 24}, Row{"ARGB", 6, 5, 3, 60},
        Row{"RGB24", 8, 5, 3, 45}, Row{"short I420", 1, 5, 3, 26, false},
        Row{"unknown", 0, 5, 3, 100, false}, Row{"no buffer", 1, 5, 3, 0, false},
        Row{"negative", 1, -5, 3, 100, false}, Row{"overflow", 6, 65536, 16385, 262144, false}}) {
    SCOPED_TRACE(row.name);
    const std::vector<std::uint8_t> bytes(std::max<std::size_t>(row.size, 1));
    int released = 0;
    srn_video_frame* const frame = srn_video_frame_new_contiguous_memory_wrapper(
        static_cast<srn_video_frame_format>(row.format), row.width, row.height, SRN_TRUE,
        row.size == 0 ? nullptr : bytes.data(), row.size,
        [](void* argument) { ++*static_cast<int*>(argument); }, &released);
    ASSERT_EQ(frame != nullptr, row.wraps);
    if (!row.wraps) continue;
    EXPECT_EQ(srn_video_frame_get_buffer(frame), bytes.data());
    // The planes lie inside the buffer, one behind the other.
    std::size_t rows = 0;
    for (const auto plane :
         {SRN_VIDEO_FRAME_PLANE_Y, SRN_VIDEO_FRAME_PLANE_U, SRN_VIDEO_FRAME_PLANE_V}) {
      const std::uint8_t* const start = srn_video_frame_get_plane_binary_data(frame, plane);
      if (start == nullptr) continue;
      EXPECT_EQ(start, bytes.data() + rows);
      rows += static_cast<std::size_t>(srn_video_frame_get_plane_stride(frame, plane)) *
              static_cast<std::size_t>(srn_video_frame_get_plane_height(frame, plane));
    }
    EXPECT_EQ(rows, row.size);
    EXPECT_EQ(srn_video_frame_delete(frame), SRN_SUCCESS);
    EXPECT_EQ(released, 1);
  }
}

TEST(Capturer, TakesFramesOfItsFormatsAndCountsThem) {
  Meeting meeting;
  auto& [library, place, first, second] = meeting;
  srn_statistics_reset();
  Sender sender({.audio = false, .fps = 1});
  ASSERT_EQ(srn_session_publish(first.handle, sender.handle), SRN_SUCCESS);
  const auto stream = second.wait_for_stream();
  Receiver receiver(stream->get());
  ASSERT_TRUE(subscribe(second, receiver));

  std::vector<std::uint8_t> black(64 * 48 * 3 / 2, 128);
  std::fill_n(black.begin(), 64 * 48, std::uint8_t{16});
  ASSERT_EQ(sender.provide(64, 48, black), SRN_SUCCESS);
  std::vector<std::uint8_t> pixels(64 * 48 * 3 / 2, 90);
  ASSERT_TRUE(eventually([&] {
    sender.provide(64, 48, pixels);
    return receiver.pictures() >= 3;
  }));
  // Done with the pixels when it returns.
  std::fill(pixels.begin(), pixels.end(), std::uint8_t{200});
  ASSERT_TRUE(eventually([&] {
    sender.provide(64, 48, std::vector<std::uint8_t>(pixels.size(), 91));
    return receiver.last_picture().is(91);
  }));
  srn_statistics figures{};
  figures.size = sizeof figures;
  ASSERT_EQ(srn_statistics_get(&figures), SRN_SUCCESS);
  EXPECT_EQ(figures.frames_black, 1U);
  EXPECT_GE(figures.frames_provided, 4U);
  figures.size = 0;
  EXPECT_EQ(srn_statistics_get(&figures), 1011);
}

}  // namespace
}  // namespace contract
