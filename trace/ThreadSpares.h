// Storage that objects gone from a thread leave to the next ones made on it,
// capacity and all, so that a steady stream of events reuses the same
// buffers instead of allocating. Safe to use while the thread's own objects
// are destroyed at its exit.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

namespace logonmon {

// `kKept` buffers at most, each of at most `kLargest` elements of capacity.
template <typename Buffer, size_t kKept = 16, size_t kLargest = SIZE_MAX>
class ThreadSpares {
  public:
    // Never throws: it is called from destructors.
    static void Keep(Buffer&& buffer) noexcept {
        Spares* spares = OfThisThread();
        if (spares != nullptr && buffer.capacity() != 0 && buffer.capacity() <= kLargest &&
            spares->count < kKept) {
            spares->kept[spares->count++] = std::move(buffer);
        }
    }

    // A kept buffer, or an empty one; its content is left over.
    static Buffer Take() noexcept {
        Spares* spares = OfThisThread();
        if (spares == nullptr || spares->count == 0) {
            return Buffer();
        }
        return std::move(spares->kept[--spares->count]);
    }

  private:
    struct Spares {
        ~Spares() { gone = true; }
        std::array<Buffer, kKept> kept{};
        size_t count = 0;
        static inline thread_local bool gone = false;
    };

    static Spares* OfThisThread() noexcept {
        thread_local Spares spares;
        return Spares::gone ? nullptr : &spares;
    }
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
        Blocks* blocks = count == 1 ? OfThisThread() : nullptr;
        if (blocks != nullptr && blocks->count > 0) {
            return static_cast<T*>(blocks->kept[--blocks->count]);
        }
        return std::allocator<T>().allocate(count);
    }

    void deallocate(T* block, size_t count) noexcept {
        Blocks* blocks = count == 1 ? OfThisThread() : nullptr;
        if (blocks != nullptr && blocks->count < blocks->kept.size()) {
            blocks->kept[blocks->count++] = block;
            return;
        }
        std::allocator<T>().deallocate(block, count);
    }

    friend bool operator==(const RecyclingAllocator&, const RecyclingAllocator&) { return true; }

  private:
    struct Blocks {
        ~Blocks() {
            gone = true;
            for (size_t i = 0; i < count; ++i) {
                std::allocator<T>().deallocate(static_cast<T*>(kept[i]), 1);
            }
        }
        std::array<void*, 16> kept{};
        size_t count = 0;
        static inline thread_local bool gone = false;
    };

    static Blocks* OfThisThread() {
        thread_local Blocks blocks;
        return Blocks::gone ? nullptr : &blocks;
    }
};

}  // namespace logonmon
