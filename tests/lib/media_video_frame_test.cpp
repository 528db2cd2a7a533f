#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>

#include "lib_test.h"
#include "media/memory_pool.h"
#include "media/mr_video_frame.h"

using namespace lib_test;

namespace {

using enum MRVideoFrameFormat;
using Pool = MemoryPool<std::uint8_t>;

constexpr auto kNoFormat = static_cast<MRVideoFrameFormat>(7);

std::vector<std::uint8_t> pixels(const MRVideoFrameData& data) {
  const auto size = MRVideoFrame::bufferSize(data.width, data.height, data.format);
  return {data.buffer, data.buffer + size};
}

/// A well-formed 3 x 3 picture of the library, with such strides and rows of its planes.
scripted_frame_spec square(const std::vector<int>& strides, const std::vector<int>& rows) {
  scripted_frame_spec spec{};
  spec.format = SRN_VIDEO_FRAME_FORMAT_YUV420P;
  spec.width = 3;
  spec.height = 3;
  spec.fill = 1;
  std::copy_n(strides.begin(), 3, spec.stride);
  std::copy_n(rows.begin(), 3, spec.rows);
  return spec;
}

using VideoFrame = ScriptedTest;

TEST_F(VideoFrame, SizesAreThoseOfPackedPictures) {
  struct Row {
    int width, height;
    MRVideoFrameFormat format;
    int size;
  };
  for (const Row& row :
       {Row{3, 3, YUV420P, 17}, Row{1, 1, YUV420P, 3}, Row{3, 3, RGB24, 27}, Row{3, 3, ARGB32, 36},
        Row{0, 10, YUV420P, 0}, Row{10, -1, RGB24, 0}, Row{10, 10, UNKNOWN, 0},
        Row{10, 10, kNoFormat, 0}, Row{65536, 16385, ARGB32, 0}, Row{100'000, 100'000, YUV420P, 0},
        Row{32'768, 65'535, YUV420P, 0}, Row{32'768, 16'383, ARGB32, 2'147'352'576}}) {
    EXPECT_EQ(MRVideoFrame::bufferSize(row.width, row.height, row.format), row.size)
        << row.width << "x" << row.height << " " << row.format;
    const std::uint8_t byte = 0;
    if (row.size != 0) continue;
    EXPECT_EQ(MRVideoFrame::create(row.width, row.height, row.format), nullptr);
    EXPECT_EQ(MRVideoFrame::create(row.width, row.height, &byte, row.format), nullptr);
  }
  EXPECT_EQ(MRVideoFrame::create(2, 2, nullptr, RGB24), nullptr);
}

TEST_F(VideoFrame, IsWrappedOnceForTheLibraryWithoutACopy) {
  auto frame = MRVideoFrame::create(4, 2, RGB24);
  scripted_fail("srn_video_frame_new_contiguous_memory_wrapper", 1, 1);
  EXPECT_EQ(frame->toSrnVideoFrame(), nullptr);
  const auto wrapped = frame->toSrnVideoFrame();
  ASSERT_NE(wrapped, nullptr);
  EXPECT_EQ(frame->toSrnVideoFrame(), wrapped);
  EXPECT_EQ(scripted_live("frame"), 1);
  EXPECT_EQ(srn_video_frame_get_buffer(wrapped.get()), frame->getFrameData().buffer);
  EXPECT_EQ(srn_video_frame_get_buffer_size(wrapped.get()), 24U);
  EXPECT_EQ(srn_video_frame_get_format(wrapped.get()), SRN_VIDEO_FRAME_FORMAT_RGB24);
}

TEST_F(VideoFrame, SharedPixelsLiveAsLongAsAnyCopyOfTheirOwner) {
  EXPECT_EQ(MRVideoFrame::share(nullptr).buffer, nullptr);
  const std::vector<std::uint8_t> picture(6, 9);
  auto frame = MRVideoFrame::create(2, 2, picture.data(), YUV420P);
  const std::uint8_t* buffer = frame->getFrameData().buffer;
  EXPECT_EQ(frame->getFrameData().keep_alive, nullptr);
  const std::size_t pooled = Pool::instance().getPoolSize(6);
  std::shared_ptr<const void> owner;
  {
    const MRVideoFrameData data = MRVideoFrame::share(std::move(frame));
    EXPECT_EQ(data,
              (MRVideoFrameData{.width = 2, .height = 2, .buffer = buffer, .format = YUV420P}));
    owner = data.keep_alive;
  }
  EXPECT_EQ(Pool::instance().getPoolSize(6), pooled);
  EXPECT_EQ(std::vector<std::uint8_t>(buffer, buffer + 6), picture);
  owner.reset();
  EXPECT_EQ(Pool::instance().getPoolSize(6), pooled + 1);
}

TEST_F(VideoFrame, PacksWhatTheLibraryGives) {
  // 3 x 3: planes of 3 x 3, 2 x 2, 2 x 2; a byte is fill + 50 * plane + row + column.
  const std::vector<std::uint8_t> whole = {1,  2,  3,  2,  3,   4,   3,   4,  5,
                                           51, 52, 52, 53, 101, 102, 102, 103};
  const std::vector<std::uint8_t> short_planes = {1,  2,  3,   16,  16,  16,  16,  16, 16,
                                                  51, 52, 128, 128, 128, 128, 128, 128};
  const struct {
    const char* name;
    scripted_frame_spec spec;
    std::vector<std::uint8_t> expected;
  } kRows[] = {{"packed", square({0, 0, 0}, {0, 0, 0}), whole},
               {"padded", square({8, 4, 4}, {0, 0, 0}), whole},
               {"without one buffer", square({0, 0, 0}, {0, 0, 0}), whole},
               {"claiming more rows than it has", square({8, 8, 8}, {500, 500, 500}), whole},
               {"with too few rows", square({8, 8, 8}, {1, 1, -1}), short_planes}};
  for (const auto& row : kRows) {
    // A recycled buffer that shows something else.
    MRVideoFrame::create(3, 3, std::vector<std::uint8_t>(17, 0xEE).data(), YUV420P).reset();
    srn_video_frame* given = scripted_frame_new(&row.spec);
    const bool no_buffer = std::string(row.name) == "without one buffer";
    scripted_fail("srn_video_frame_get_buffer", 1, no_buffer ? 1 : 0);
    const auto frame = MRVideoFrame::fromSrnVideoFrame(given);
    ASSERT_NE(frame, nullptr) << row.name;
    EXPECT_EQ(pixels(frame->getFrameData()), row.expected) << row.name;
    srn_video_frame_delete(given);
  }
}

TEST(MemoryPool, GivesBackTheLastBufferOfExactlyThatSize) {
  auto& pool = MemoryPool<int>::instance();
  auto first = pool.getBuffer(4);
  auto second = pool.getBuffer(4);
  EXPECT_EQ(std::vector<int>(first.get(), first.get() + 4), std::vector<int>(4, 0));
  first[0] = 1;
  second[0] = 2;
  EXPECT_TRUE(pool.returnBuffer(4, std::move(first)));
  EXPECT_TRUE(pool.returnBuffer(4, std::move(second)));
  EXPECT_EQ(pool.getPoolSize(4), 2U);
  EXPECT_EQ(pool.getBuffer(5)[0], 0);
  EXPECT_EQ(pool.getBuffer(4)[0], 2);
  EXPECT_EQ(pool.getBuffer(4)[0], 1);
  for (const int size : {0, -1}) {
    EXPECT_EQ(pool.getBuffer(size), nullptr);
    EXPECT_FALSE(pool.returnBuffer(size, std::make_unique<int[]>(1)));
    EXPECT_EQ(pool.getPoolSize(size), 0U);
  }
  EXPECT_FALSE(pool.returnBuffer(4, nullptr));
  EXPECT_TRUE(pool.returnBuffer(4, std::make_unique<int[]>(4)));
  pool.clear();
  EXPECT_EQ(pool.getPoolSize(4), 0U);
}

TEST(MemoryPool, NeverGivesOneBufferToTwo) {
  auto& pool = MemoryPool<std::atomic<int>>::instance();
  std::atomic<int> collisions{0};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 2000; ++round) {
        auto buffer = pool.getBuffer(3);
        if (buffer[0].fetch_add(1) != 0) ++collisions;
        buffer[0].fetch_sub(1);
        pool.returnBuffer(3, std::move(buffer));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(collisions, 0);
  EXPECT_LE(pool.getPoolSize(3), 4U);
}

}  // namespace
