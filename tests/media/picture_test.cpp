#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "embedded/companion_media.h"
#include "pictures/picture_converter.h"

namespace sarnet {
namespace {

PictureRef new_picture(int width, int height) {
  static PicturePool pool(16);
  PictureRef picture = pool.acquire(width, height);
  std::fill_n(picture->data(), picture->size(), std::uint8_t{16});
  return picture;
}

TEST(PictureConverter, ConvertsColoursByTheirPlaceInMemory) {
  struct Row {
    std::array<std::uint8_t, 3> rgb;
    std::array<int, 3> yuv;
  };
  const Row rows[] = {{{255, 0, 0}, {81, 90, 240}},
                      {{0, 255, 0}, {145, 54, 34}},
                      {{0, 0, 255}, {41, 240, 110}},
                      {{255, 255, 255}, {235, 128, 128}},
                      {{0, 0, 0}, {16, 128, 128}}};
  PictureConverter converter;
  for (const auto& [width, height] : {std::pair{16, 8}, std::pair{5, 3}, std::pair{1, 1}}) {
    const auto count = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    for (const Row& row : rows) {
      std::vector<std::uint8_t> rgb;
      std::vector<std::uint8_t> argb;
      for (std::size_t i = 0; i < count; ++i) {
        rgb.insert(rgb.end(), row.rgb.begin(), row.rgb.end());
        argb.push_back(static_cast<std::uint8_t>(i));  // alpha is of no account
        argb.insert(argb.end(), row.rgb.begin(), row.rgb.end());
      }
      for (const auto& [format, bytes] :
           {std::pair{PixelFormat::kRgb24, &rgb}, std::pair{PixelFormat::kArgb32, &argb}}) {
        const PictureRef picture = new_picture(width, height);
        ASSERT_TRUE(converter.convert(format, width, height, bytes->data(), bytes->size(), 0,
                                      picture->mutable_view()));
        const PictureView view = picture->view();
        const std::ptrdiff_t last = static_cast<std::ptrdiff_t>(count) - 1;
        const std::ptrdiff_t last_chroma =
            static_cast<std::ptrdiff_t>(chroma_size(width)) * chroma_size(height) - 1;
        for (const int end : {0, 1}) {
          EXPECT_NEAR(view.y[end * last], row.yuv[0], 2);
          EXPECT_NEAR(view.u[end * last_chroma], row.yuv[1], 2);
          EXPECT_NEAR(view.v[end * last_chroma], row.yuv[2], 2);
        }
      }
    }
  }
}

TEST(PictureConverter, TurnsClockwiseAndScales) {
  // White on the left half, black on the right.
  const PictureRef source = new_picture(16, 8);
  for (int i = 0; i < 16 * 8; ++i) source->data()[i] = i % 16 < 8 ? 235 : 16;
  struct Row {
    int rotation;
    int width, height;  // of the target
    const char* white;  // the side it comes to
  };
  const Row rows[] = {{0, 16, 8, "left"},   {0, 33, 17, "left"},   {90, 8, 16, "top"},
                      {90, 20, 40, "top"},  {180, 16, 8, "right"}, {270, 8, 16, "bottom"},
                      {270, 5, 9, "bottom"}};
  PictureConverter converter;
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.rotation) + " to " + std::to_string(row.width));
    const PictureRef target = new_picture(row.width, row.height);
    ASSERT_TRUE(converter.convert(PixelFormat::kI420, 16, 8, source->data(), source->size(),
                                  row.rotation, target->mutable_view()));
    const auto luma = [&](int x, int y) { return int{target->data()[y * row.width + x]}; };
    const std::string side = row.white;
    EXPECT_EQ(luma(0, 0) > 128, side == "left" || side == "top");
    EXPECT_EQ(luma(row.width - 1, 0) > 128, side == "right" || side == "top");
    EXPECT_EQ(luma(0, row.height - 1) > 128, side == "left" || side == "bottom");
  }
}

TEST(PictureConverter, RefusesWhatWouldReadBeyondTheBuffer) {
  PictureConverter converter;
  const std::vector<std::uint8_t> bytes(60, 77);
  const PictureRef target = new_picture(4, 4);
  const auto convert = [&](PixelFormat format, int width, int height, std::size_t size,
                           int rotation) {
    return converter.convert(format, width, height, bytes.data(), size, rotation,
                             target->mutable_view());
  };
  EXPECT_TRUE(convert(PixelFormat::kI420, 5, 3, 15 + 2 * 6, 0));
  EXPECT_FALSE(convert(PixelFormat::kI420, 5, 3, 15 + 2 * 6 - 1, 0));
  EXPECT_FALSE(convert(PixelFormat::kRgb24, 5, 3, 44, 0));
  EXPECT_FALSE(convert(PixelFormat::kArgb32, 5, 3, 59, 0));
  EXPECT_FALSE(convert(PixelFormat::kI420, 0, 3, 60, 0));
  EXPECT_FALSE(convert(PixelFormat::kI420, -5, -3, 60, 0));
  EXPECT_FALSE(convert(PixelFormat::kI420, 65536, 65536, 60, 0));
  EXPECT_FALSE(convert(PixelFormat::kI420, 4, 4, 60, 45));
}

TEST(PicturePool, IsBoundedRecyclesAndMayGoFirst) {
  std::optional<PicturePool> pool(std::in_place, 2);
  PictureRef first = pool->acquire(64, 48);
  PictureRef second = pool->acquire(64, 48);
  EXPECT_FALSE(pool->acquire(64, 48));
  const std::uint8_t* memory = first->data();
  PictureRef shared = first;
  first = {};
  EXPECT_FALSE(pool->acquire(64, 48)) << "still referenced";
  shared = {};
  PictureRef again = pool->acquire(31, 17);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->data(), memory);
  EXPECT_EQ(again->size(), 31U * 17 + 2 * 16 * 9);
  pool.reset();
  again->data()[again->size() - 1] = 1;
  second->data()[0] = 1;
}

TEST(TestCard, CarriesItsNumberAtEverySize) {
  struct Row {
    int width, height;
    int scaled_width, scaled_height;
  };
  for (const Row& row : {Row{640, 480, 320, 240}, Row{320, 240, 641, 479}, Row{33, 35, 33, 35},
                         Row{1280, 720, 160, 90}}) {
    const TestCard card(row.width, row.height);
    const PictureRef picture = new_picture(row.width, row.height);
    const PictureRef scaled = new_picture(row.scaled_width, row.scaled_height);
    EXPECT_FALSE(TestCard::read_number(picture->view())) << "black is no card";
    for (const std::uint32_t number : {0U, 1U, 240U, 43690U, 65535U, 65536U}) {
      card.paint(number, picture->mutable_view());
      PictureConverter::scale(picture->view(), scaled->mutable_view());
      EXPECT_EQ(TestCard::read_number(scaled->view()), number % 65536);
    }
  }
  for (const int side : {0, 1, 2, 3, 16, 31}) {  // too small for marks, but painted
    const TestCard tiny(side, side);
    const PictureRef picture = new_picture(tiny.width(), tiny.height());
    tiny.paint(7, picture->mutable_view());
    EXPECT_FALSE(TestCard::read_number(picture->view()));
  }
}

}  // namespace
}  // namespace sarnet
