// Storage that objects gone from a thread leave to the next ones made on it,
// capacity and all, so that a steady stream of events reuses the same
// buffers instead of allocating. Safe to use while the thread's own objects
// are destroyed at its exit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace logonmon {

// `kKept` buffers at most, each of at most `kLargest` elements of capacity.
template <typename Buffer, size_t kKept = 16, size_t kLargest = SIZE_MAX>
class ThreadSpares {
  public:
    static void Keep(Buffer&& buffer) {
        Spares* spares = OfThisThread();
        if (spares != nullptr && buffer.capacity() != 0 && buffer.capacity() <= kLargest &&
            spares->kept.size() < kKept) {
            spares->kept.push_back(std::move(buffer));
        }
    }

    // A kept buffer, or an empty one; its content is left over.
    static Buffer Take() {
        Spares* spares = OfThisThread();
        if (spares == nullptr || spares->kept.empty()) {
            return Buffer();
        }
        Buffer buffer = std::move(spares->kept.back());
        spares->kept.pop_back();
        return buffer;
    }

  private:
    struct Spares {
        ~Spares() { gone = true; }
        std::vector<Buffer> kept;
        static inline thread_local bool gone = false;
    };

    static Spares* OfThisThread() {
        thread_local Spares spares;
        return Spares::gone ? nullptr : &spares;
    }
};

}  // namespace logonmon
