#include "logonmon/NamedValues.h"

#include <functional>
#include <mutex>
#include <string>
#include <unordered_set>

namespace logonmon {

namespace {

struct NameHash {
    using is_transparent = void;
    size_t operator()(std::wstring_view name) const { return std::hash<std::wstring_view>()(name); }
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
