// A client's shared-memory block as the daemon maps it. Owns the mapping; move-only.
#pragma once

#include <sys/mman.h>

#include <cstdint>
#include <utility>

namespace zel::vault {

class SharedBlock {
  public:
    SharedBlock() = default;
    SharedBlock(uint8_t* data, uint32_t size, size_t mapped, uint32_t flags)
        : data_(data), size_(size), mapped_(mapped), flags_(flags) {}
    SharedBlock(SharedBlock&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(other.size_),
          mapped_(std::exchange(other.mapped_, 0)),
          flags_(other.flags_) {}
    SharedBlock& operator=(SharedBlock&& other) noexcept {
        if (this != &other) {
            release();
            data_ = std::exchange(other.data_, nullptr);
            size_ = other.size_;
            mapped_ = std::exchange(other.mapped_, 0);
            flags_ = other.flags_;
        }
        return *this;
    }
    SharedBlock(const SharedBlock&) = delete;
    SharedBlock& operator=(const SharedBlock&) = delete;
    ~SharedBlock() { release(); }

    uint8_t* data() const { return data_; }
    uint32_t size() const { return size_; }
    uint32_t flags() const { return flags_; }

    void release() {
        if (data_) munmap(data_, mapped_);
        data_ = nullptr;
        mapped_ = 0;
    }

  private:
    uint8_t* data_ = nullptr;
    uint32_t size_ = 0;
    size_t mapped_ = 0;
    uint32_t flags_ = 0;
};

}  // namespace zel::vault
