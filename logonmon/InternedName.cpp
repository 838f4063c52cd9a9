#include "logonmon/NamedValues.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>

namespace logonmon {

namespace {

// FNV-1a over the units: names are short, and most share a long prefix.
struct NameHash {
    using is_transparent = void;
    size_t operator()(std::wstring_view name) const {
        uint64_t hash = 14695981039346656037ull;
        for (const wchar_t unit : name) {
            hash = (hash ^ static_cast<uint64_t>(unit)) * 1099511628211ull;
        }
        return static_cast<size_t>(hash);
    }
};

}  // namespace

std::wstring_view InternedName(std::wstring_view name) {
    static std::mutex mutex;
    // Nodes never move, so views of the names stay valid as the set grows.
    static std::unordered_set<std::wstring, NameHash, std::equal_to<>> names;
    std::lock_guard<std::mutex> lock(mutex);
    auto found = names.find(name);
    if (found == names.end()) {
        found = names.emplace(name).first;
    }
    return *found;
}

}  // namespace logonmon
