#include "logonmon/NamedValues.h"

#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>

#include "trace/PerThread.h"

namespace logonmon {

namespace {

// Eight bytes at a time: names are short, and most share a long prefix.
struct NameHash {
    using is_transparent = void;
    size_t operator()(std::wstring_view name) const {
        const auto* bytes = reinterpret_cast<const unsigned char*>(name.data());
        size_t left = name.size() * sizeof(wchar_t);
        uint64_t hash = 0x9E3779B97F4A7C15ull ^ left;
        const auto mix = [&hash](uint64_t word) {
            hash = (hash ^ word) * 0xFF51AFD7ED558CCDull;
            hash ^= hash >> 32;
        };
        for (; left >= 8; bytes += 8, left -= 8) {
            uint64_t word = 0;
            std::memcpy(&word, bytes, 8);
            mix(word);
        }
        uint64_t tail = 0;
        for (size_t i = 0; i < left; ++i) {
            tail |= uint64_t{bytes[i]} << (8 * i);
        }
        mix(tail);
        return static_cast<size_t>(hash);
    }
};

}  // namespace

std::wstring_view InternedName(std::wstring_view name) {
    // The names this thread already asked for, found without the lock.
    auto& known = PerThread<std::unordered_set<std::wstring_view, NameHash, std::equal_to<>>>();
    if (const auto found = known.find(name); found != known.end()) {
        return *found;
    }
    static std::mutex mutex;
    // Nodes never move, so views of the names stay valid as the set grows.
    static std::unordered_set<std::wstring, NameHash, std::equal_to<>> names;
    std::lock_guard<std::mutex> lock(mutex);
    auto found = names.find(name);
    if (found == names.end()) {
        found = names.emplace(name).first;
    }
    known.insert(*found);
    return *found;
}

}  // namespace logonmon
