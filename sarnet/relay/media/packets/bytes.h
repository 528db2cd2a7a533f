#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace sarnet::relay {

using Bytes = std::span<const std::uint8_t>;

// Moments and spans of the plane: microseconds on a clock that only goes forward. Whoever drives
// the plane says what time it is.
using Micros = std::chrono::microseconds;

// Reads numbers in network order from bytes that nobody vouches for. A read beyond the end gives
// zeros and leaves the reader failed for good, so that a parser may read a whole header and ask
// once. Borrows the bytes.
class ByteReader {
 public:
  explicit ByteReader(Bytes bytes) : rest_(bytes) {}

  bool ok() const { return ok_; }
  std::size_t left() const { return rest_.size(); }
  Bytes rest() const { return rest_; }

  std::uint8_t u8() { return static_cast<std::uint8_t>(number(1)); }
  std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
  std::uint32_t u24() { return static_cast<std::uint32_t>(number(3)); }
  std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }
  std::uint64_t u64() { return number(8); }
  // The next bytes as they are; empty, and failed, when there are fewer.
  Bytes take(std::size_t count) {
    if (count > rest_.size()) {
      fail();
      return {};
    }
    const Bytes taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
  }
  void skip(std::size_t count) { take(count); }

 private:
  std::uint64_t number(std::size_t size) {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : take(size)) value = value << 8 | byte;
    return value;
  }
  void fail() {
    ok_ = false;
    rest_ = {};
  }

  Bytes rest_;
  bool ok_ = true;
};

// Writes numbers in network order into memory of fixed size. What does not fit is not written, and
// leaves the writer failed for good. Borrows the memory.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::uint8_t> target) : target_(target) {}

  bool ok() const { return ok_; }
  std::size_t size() const { return size_; }
  std::size_t room() const { return target_.size() - size_; }
  Bytes written() const { return target_.first(size_); }

  void u8(std::uint8_t value) { number(value, 1); }
  void u16(std::uint16_t value) { number(value, 2); }
  void u24(std::uint32_t value) { number(value, 3); }
  void u32(std::uint32_t value) { number(value, 4); }
  void u64(std::uint64_t value) { number(value, 8); }
  void bytes(Bytes source) {
    if (std::uint8_t* at = claim(source.size()); at != nullptr && !source.empty()) {
      std::memcpy(at, source.data(), source.size());
    }
  }
  void zeros(std::size_t count) {
    if (std::uint8_t* at = claim(count); at != nullptr && count != 0) std::memset(at, 0, count);
  }
  // Over what was written already.
  void patch_u16(std::size_t at, std::uint16_t value) {
    target_[at] = static_cast<std::uint8_t>(value >> 8);
    target_[at + 1] = static_cast<std::uint8_t>(value);
  }

 private:
  std::uint8_t* claim(std::size_t count) {
    if (!ok_ || count > room()) {
      ok_ = false;
      return nullptr;
    }
    std::uint8_t* const at = target_.data() + size_;
    size_ += count;
    return at;
  }
  void number(std::uint64_t value, std::size_t size) {
    if (std::uint8_t* at = claim(size); at != nullptr) {
      for (std::size_t i = 0; i < size; ++i) {
        at[i] = static_cast<std::uint8_t>(value >> 8 * (size - 1 - i));
      }
    }
  }

  std::span<std::uint8_t> target_;
  std::size_t size_ = 0;
  bool ok_ = true;
};

}  // namespace sarnet::relay
