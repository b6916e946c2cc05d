#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qs::fuzz {

// Reads typed pieces from the front of a fuzzer input. Running out of bytes
// yields zeros and empty strings, so every input decodes to something and
// small mutations stay small. Not thread-safe (one per input).
class FuzzInput {
 public:
  FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  std::uint8_t byte() { return size_ == 0 ? 0 : (--size_, *data_++); }
  std::uint64_t integer() {
    std::uint64_t value = 0;
    for (int i = 0; i < 8; ++i) value = value << 8 | byte();
    return value;
  }
  // A piece of up to 255 bytes, its length given by the first byte.
  std::string piece() { return take(byte()); }
  // Whatever is left.
  std::string rest() { return take(size_); }
  bool empty() const { return size_ == 0; }

 private:
  std::string take(std::size_t length) {
    length = std::min(length, size_);
    std::string text(reinterpret_cast<const char*>(data_), length);
    data_ += length;
    size_ -= length;
    return text;
  }

  const std::uint8_t* data_;
  std::size_t size_;
};

}  // namespace qs::fuzz
