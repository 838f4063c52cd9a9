#include "logonmon/SessionIndex.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace logonmon {

namespace {

struct SessionIdOrder {
    static uint32_t KeyOf(const SESSION_CONTEXT& context) { return context.sessionId; }
    bool operator()(const std::shared_ptr<SESSION_CONTEXT>& entry, uint32_t key) const {
        return entry->sessionId < key;
    }
    bool operator()(uint32_t key, const std::shared_ptr<SESSION_CONTEXT>& entry) const {
        return key < entry->sessionId;
    }
};

// Only sessions with a user are in this index, ordered by the length of the
// SID, then by its bytes.
struct SidOrder {
    using Bytes = std::span<const uint8_t>;
    static Bytes KeyOf(const SESSION_CONTEXT& context) { return context.userSid->Bytes(); }
    static bool Before(Bytes left, Bytes right) {
        return left.size() != right.size()
                   ? left.size() < right.size()
                   : std::memcmp(left.data(), right.data(), left.size()) < 0;
    }
    bool operator()(const std::shared_ptr<SESSION_CONTEXT>& entry, Bytes key) const {
        return Before(KeyOf(*entry), key);
    }
    bool operator()(Bytes key, const std::shared_ptr<SESSION_CONTEXT>& entry) const {
        return Before(key, KeyOf(*entry));
    }
};

template <typename Order, typename Sessions>
void Insert(Sessions& index, const std::shared_ptr<SESSION_CONTEXT>& context) {
    index.insert(std::upper_bound(index.begin(), index.end(), Order::KeyOf(*context), Order()),
                 context);
}

template <typename Order, typename Sessions>
void Erase(Sessions& index, const SESSION_CONTEXT& context) {
    const auto [first, last] =
        std::equal_range(index.begin(), index.end(), Order::KeyOf(context), Order());
    const auto found = std::find_if(
        first, last, [&context](const auto& entry) { return entry.get() == &context; });
    if (found != last) {
        index.erase(found);
    }
}

template <typename Iterator>
std::shared_ptr<SESSION_CONTEXT> Newest(Iterator first, Iterator last, uint64_t timestamp) {
    auto newest = last;
    for (auto entry = first; entry != last; ++entry) {
        if ((*entry)->createdAt <= timestamp &&
            (newest == last || (*entry)->createdAt >= (*newest)->createdAt)) {
            newest = entry;
        }
    }
    return newest != last ? *newest : nullptr;
}

}  // namespace

void SessionIndex::Add(const std::shared_ptr<SESSION_CONTEXT>& context) {
    lastById_.valid = false;
    Insert<SessionIdOrder>(bySessionId_, context);
    if (context->userSid) {
        Insert<SidOrder>(bySid_, context);
    }
}

void SessionIndex::Remove(const SESSION_CONTEXT& context) {
    lastById_.valid = false;
    Erase<SessionIdOrder>(bySessionId_, context);
    if (context.userSid) {
        Erase<SidOrder>(bySid_, context);
    }
}

void SessionIndex::ChangeSid(const std::shared_ptr<SESSION_CONTEXT>& context,
                             const std::optional<Sid>& sid) {
    if (context->userSid) {
        Erase<SidOrder>(bySid_, *context);
    }
    context->userSid = sid;
    if (sid) {
        Insert<SidOrder>(bySid_, context);
    }
}

std::shared_ptr<SESSION_CONTEXT> SessionIndex::BySessionId(uint32_t sessionId,
                                                           uint64_t timestamp) const {
    if (!lastById_.valid || lastById_.sessionId != sessionId) {
        const auto [first, last] =
            std::equal_range(bySessionId_.begin(), bySessionId_.end(), sessionId, SessionIdOrder());
        lastById_ = {true, sessionId, static_cast<size_t>(first - bySessionId_.begin()),
                     static_cast<size_t>(last - bySessionId_.begin())};
    }
    return Newest(bySessionId_.begin() + static_cast<ptrdiff_t>(lastById_.first),
                  bySessionId_.begin() + static_cast<ptrdiff_t>(lastById_.last), timestamp);
}

std::shared_ptr<SESSION_CONTEXT> SessionIndex::BySid(const Sid& sid, uint64_t timestamp) const {
    const auto [first, last] =
        std::equal_range(bySid_.begin(), bySid_.end(), sid.Bytes(), SidOrder());
    return Newest(first, last, timestamp);
}

}  // namespace logonmon
