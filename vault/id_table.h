// A connection's sessions or blocks by id, in a fixed array: the daemon allocates nothing per
// request. Holds at most Capacity values; erasing moves the last one into the gap, so a table
// keeps no order. Values are destroyed (a block unmapped) as they are erased and with the table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace zel::vault {

template <typename Value, size_t Capacity>
class IdTable {
  public:
    size_t size() const { return count_; }
    bool full() const { return count_ == Capacity; }

    // False, keeping nothing, when the table is full.
    bool add(uint32_t id, Value value) {
        if (full()) return false;
        entries_[count_++] = {id, std::move(value)};
        return true;
    }
    Value* find(uint32_t id) {
        for (size_t i = 0; i < count_; ++i)
            if (entries_[i].first == id) return &entries_[i].second;
        return nullptr;
    }
    const Value* find(uint32_t id) const { return const_cast<IdTable*>(this)->find(id); }
    bool erase(uint32_t id) {
        for (size_t i = 0; i < count_; ++i) {
            if (entries_[i].first != id) continue;
            --count_;
            // Moving over an entry releases what it held; the last one is emptied in place.
            if (i != count_) entries_[i] = std::move(entries_[count_]);
            entries_[count_] = {0, Value()};
            return true;
        }
        return false;
    }

    // Calls f(id, value) for every entry.
    template <typename F>
    void forEach(F f) {
        for (size_t i = 0; i < count_; ++i) f(entries_[i].first, entries_[i].second);
    }

  private:
    std::array<std::pair<uint32_t, Value>, Capacity> entries_{};
    size_t count_ = 0;
};

}  // namespace zel::vault
