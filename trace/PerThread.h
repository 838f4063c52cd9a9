// An object of each thread that lasts as long as the process. A thread that
// ends leaves its object behind: MinGW runs the destructors of thread_local
// objects after it has freed their storage, so that no thread_local here has
// a destructor. The objects stay reachable, so that leak checkers see none.
#pragma once

#include <mutex>
#include <vector>

namespace logonmon {

template <typename T>
T& PerThread() {
    thread_local T* object = nullptr;
    if (object == nullptr) {
        static std::mutex mutex;
        static auto* const all = new std::vector<T*>();
        auto made = new T();
        std::lock_guard<std::mutex> lock(mutex);
        all->push_back(made);
        object = made;
    }
    return *object;
}

}  // namespace logonmon
