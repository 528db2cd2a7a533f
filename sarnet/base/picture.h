#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace sarnet {

// Chroma planes of an odd-sized I420 picture round up.
constexpr int chroma_size(int luma) { return (luma + 1) / 2; }
// Bytes of a packed I420 picture: Y, then U, then V, no padding.
constexpr std::size_t i420_size(int width, int height) {
  return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) +
         2 * static_cast<std::size_t>(chroma_size(width)) *
             static_cast<std::size_t>(chroma_size(height));
}

// Borrowed I420 pixels, BT.601 studio range. Strides are bytes from one row to the next.
template <class Byte>
struct BasicPictureView {
  int width = 0;
  int height = 0;
  Byte* y = nullptr;
  Byte* u = nullptr;
  Byte* v = nullptr;
  int stride_y = 0;
  int stride_u = 0;
  int stride_v = 0;
};
using PictureView = BasicPictureView<const std::uint8_t>;
using MutablePictureView = BasicPictureView<std::uint8_t>;

class PicturePool;

// One I420 picture in contiguous memory (i420_size bytes, strides equal to the plane widths).
// Written by its acquirer only; read-only once it is shared.
class Picture {
 public:
  int width() const { return width_; }
  int height() const { return height_; }
  const std::uint8_t* data() const { return bytes_.data(); }
  std::uint8_t* data() { return bytes_.data(); }
  std::size_t size() const { return i420_size(width_, height_); }
  PictureView view() const;
  MutablePictureView mutable_view();

  // For the owner's use: the capture time, in milliseconds of the owner's clock.
  std::int64_t timestamp_ms = 0;

 private:
  friend class PicturePool;
  friend class PictureRef;
  struct Shelf;

  int width_ = 0;
  int height_ = 0;
  std::vector<std::uint8_t> bytes_;
  std::atomic<int> references_{0};
  std::shared_ptr<Shelf> home_;  // set while referenced, so that a picture may outlive its pool
};

// A counted reference to a pooled picture, like shared_ptr without its allocation: the last one
// returns the picture to its pool, on any thread. Empty when default-constructed.
class PictureRef {
 public:
  PictureRef() = default;
  PictureRef(const PictureRef& other);
  PictureRef(PictureRef&& other) noexcept : picture_(std::exchange(other.picture_, nullptr)) {}
  PictureRef& operator=(PictureRef other) noexcept {
    std::swap(picture_, other.picture_);
    return *this;
  }
  ~PictureRef();

  explicit operator bool() const { return picture_ != nullptr; }
  Picture* operator->() const { return picture_; }
  Picture& operator*() const { return *picture_; }
  Picture* get() const { return picture_; }

 private:
  friend class PicturePool;
  explicit PictureRef(Picture* picture) : picture_(picture) {}

  Picture* picture_ = nullptr;
};

// At most `capacity` pictures, recycled. Any thread; a leaf lock is held for a few instructions.
// Acquiring allocates only while the pool grows to its high-water mark or when a picture gets
// larger. The pool may be destroyed before its pictures.
class PicturePool {
 public:
  explicit PicturePool(std::size_t capacity);
  ~PicturePool();
  PicturePool(const PicturePool&) = delete;
  PicturePool& operator=(const PicturePool&) = delete;

  // A picture of this size with unspecified contents; empty when all are in use, when a size is not
  // positive or when memory is short.
  PictureRef acquire(int width, int height);

 private:
  std::shared_ptr<Picture::Shelf> shelf_;
};

}  // namespace sarnet
