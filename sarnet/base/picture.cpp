#include "base/picture.h"

#include <exception>
#include <new>

#include "common/mutex.h"

namespace sarnet {

// Shared by the pool and the pictures in use.
struct Picture::Shelf {
  common::Mutex mutex;
  std::size_t capacity = 0;
  std::size_t made GUARDED_BY(mutex) = 0;
  std::vector<std::unique_ptr<Picture>> idle GUARDED_BY(mutex);  // reserved for `capacity`
};

PictureView Picture::view() const {
  const int chroma_width = chroma_size(width_);
  const std::uint8_t* y = bytes_.data();
  const std::uint8_t* u = y + static_cast<std::size_t>(width_) * height_;
  const std::uint8_t* v = u + static_cast<std::size_t>(chroma_width) * chroma_size(height_);
  return {width_, height_, y, u, v, width_, chroma_width, chroma_width};
}

MutablePictureView Picture::mutable_view() {
  const int chroma_width = chroma_size(width_);
  std::uint8_t* y = bytes_.data();
  std::uint8_t* u = y + static_cast<std::size_t>(width_) * height_;
  std::uint8_t* v = u + static_cast<std::size_t>(chroma_width) * chroma_size(height_);
  return {width_, height_, y, u, v, width_, chroma_width, chroma_width};
}

PictureRef::PictureRef(const PictureRef& other) : picture_(other.picture_) {
  if (picture_ != nullptr) picture_->references_.fetch_add(1, std::memory_order_relaxed);
}

PictureRef::~PictureRef() {
  if (picture_ == nullptr || picture_->references_.fetch_sub(1, std::memory_order_acq_rel) != 1) {
    return;
  }
  std::unique_ptr<Picture> owned(picture_);
  // Held until the lock is released: this may be the last reference to the shelf.
  const std::shared_ptr<Picture::Shelf> home = std::move(owned->home_);
  const common::LockGuard lock(home->mutex);
  home->idle.push_back(std::move(owned));
}

PicturePool::PicturePool(std::size_t capacity) : shelf_(std::make_shared<Picture::Shelf>()) {
  shelf_->capacity = capacity;
  shelf_->idle.reserve(capacity);
}

PicturePool::~PicturePool() = default;

PictureRef PicturePool::acquire(int width, int height) {
  if (width <= 0 || height <= 0) {
    return {};
  }
  std::unique_ptr<Picture> picture;
  {
    const common::LockGuard lock(shelf_->mutex);
    if (!shelf_->idle.empty()) {
      picture = std::move(shelf_->idle.back());
      shelf_->idle.pop_back();
    } else if (shelf_->made < shelf_->capacity) {
      picture.reset(new (std::nothrow) Picture());
      shelf_->made += picture ? 1 : 0;
    }
  }
  if (!picture) {
    return {};
  }
  picture->home_ = shelf_;
  picture->references_.store(1, std::memory_order_relaxed);
  PictureRef reference(picture.release());
  try {
    if (reference->bytes_.size() < i420_size(width, height)) {
      reference->bytes_.resize(i420_size(width, height));
    }
  } catch (const std::exception&) {
    return {};  // the reference gives the picture back
  }
  reference->width_ = width;
  reference->height_ = height;
  reference->timestamp_ms = 0;
  return reference;
}

}  // namespace sarnet
