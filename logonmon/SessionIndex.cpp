#include "logonmon/SessionIndex.h"

#include <algorithm>

namespace logonmon {

namespace {

template <typename Index, typename Key>
void Erase(Index& index, const Key& key, const SESSION_CONTEXT& context) {
    const auto bucket = index.find(key);
    if (bucket == index.end()) {
        return;
    }
    std::erase_if(bucket->second,
                  [&context](const auto& entry) { return entry.get() == &context; });
    if (bucket->second.empty()) {
        index.erase(bucket);
    }
}

template <typename Index, typename Key>
std::shared_ptr<SESSION_CONTEXT> Newest(const Index& index, const Key& key, uint64_t timestamp) {
    const auto bucket = index.find(key);
    if (bucket == index.end()) {
        return nullptr;
    }
    std::shared_ptr<SESSION_CONTEXT> newest;
    for (const auto& context : bucket->second) {
        if (context->createdAt <= timestamp &&
            (!newest || context->createdAt >= newest->createdAt)) {
            newest = context;
        }
    }
    return newest;
}

}  // namespace

void SessionIndex::Add(const std::shared_ptr<SESSION_CONTEXT>& context) {
    bySessionId_[context->sessionId].push_back(context);
    if (context->userSid) {
        bySid_[context->userSid->Bytes()].push_back(context);
    }
}

void SessionIndex::Remove(const SESSION_CONTEXT& context) {
    Erase(bySessionId_, context.sessionId, context);
    if (context.userSid) {
        Erase(bySid_, context.userSid->Bytes(), context);
    }
}

void SessionIndex::ChangeSid(const std::shared_ptr<SESSION_CONTEXT>& context,
                             const std::optional<Sid>& sid) {
    if (context->userSid) {
        Erase(bySid_, context->userSid->Bytes(), *context);
    }
    context->userSid = sid;
    if (sid) {
        bySid_[sid->Bytes()].push_back(context);
    }
}

std::shared_ptr<SESSION_CONTEXT> SessionIndex::BySessionId(uint32_t sessionId,
                                                           uint64_t timestamp) const {
    return Newest(bySessionId_, sessionId, timestamp);
}

std::shared_ptr<SESSION_CONTEXT> SessionIndex::BySid(const Sid& sid, uint64_t timestamp) const {
    return Newest(bySid_, sid.Bytes(), timestamp);
}

}  // namespace logonmon
