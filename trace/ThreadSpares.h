// Storage that objects gone from a thread leave to the next ones made on it,
// capacity and all, so that a steady stream of events reuses the same
// buffers instead of allocating.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "trace/PerThread.h"

namespace logonmon {

// `kKept` buffers at most, each of at most `kLargest` elements of capacity.
template <typename Buffer, size_t kKept = 16, size_t kLargest = SIZE_MAX>
class ThreadSpares {
  public:
    // Never throws: it is called from destructors. A buffer that cannot be
    // kept is freed by its owner.
    static void Keep(Buffer&& buffer) noexcept {
        if (buffer.capacity() == 0 || buffer.capacity() > kLargest) {
            return;
        }
        try {
            std::vector<Buffer>& kept = PerThread<Spares>().kept;
            if (kept.size() < kKept) {
                kept.push_back(std::move(buffer));
            }
        } catch (const std::bad_alloc&) {
        }
    }

    // A kept buffer, or an empty one; its content is left over.
    static Buffer Take() {
        std::vector<Buffer>& kept = PerThread<Spares>().kept;
        if (kept.empty()) {
            return Buffer();
        }
        Buffer buffer = std::move(kept.back());
        kept.pop_back();
        return buffer;
    }

  private:
    struct Spares {
        std::vector<Buffer> kept;
    };
};

// Allocates single objects, keeping a few freed blocks per thread for the
// next object of the type: std::allocate_shared asks for an object and its
// count in one block, which a stream of events would otherwise take from
// and give back to the heap every time.
template <typename T>
class RecyclingAllocator {
  public:
    using value_type = T;

    RecyclingAllocator() = default;
    template <typename U>
    explicit RecyclingAllocator(const RecyclingAllocator<U>&) noexcept {}

    T* allocate(size_t count) {
        if (count == 1) {
            Blocks& blocks = PerThread<Blocks>();
            if (blocks.count > 0) {
                return static_cast<T*>(blocks.kept[--blocks.count]);
            }
        }
        return std::allocator<T>().allocate(count);
    }

    void deallocate(T* block, size_t count) noexcept {
        if (count == 1) {
            try {
                Blocks& blocks = PerThread<Blocks>();
                if (blocks.count < blocks.kept.size()) {
                    blocks.kept[blocks.count++] = block;
                    return;
                }
            } catch (const std::bad_alloc&) {
            }
        }
        std::allocator<T>().deallocate(block, count);
    }

    friend bool operator==(const RecyclingAllocator&, const RecyclingAllocator&) { return true; }

  private:
    struct Blocks {
        std::array<void*, 16> kept{};
        size_t count = 0;
    };
};

}  // namespace logonmon
