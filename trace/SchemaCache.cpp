#include "trace/SchemaCache.h"

#include <array>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "trace/PerThread.h"
#include "trace/Providers.h"

namespace logonmon {

namespace {

// DECODING_SOURCE's DecodingSourceTlg and EVENT_HEADER_EXT_TYPE_EVENT_SCHEMA_TL.
constexpr uint32_t kDecodingSourceTraceLogging = 3;
constexpr uint16_t kExtTypeTraceLoggingSchema = 11;

// What tells one kind of event from another, under the binding in use:
// the generation, the provider, then id, version, opcode and level packed,
// then the keyword, compared as whole words.
using SchemaKey = std::array<uint64_t, 5>;

struct SchemaKeyHash {
    size_t operator()(const SchemaKey& key) const {
        uint64_t hash = 0;
        for (const uint64_t word : key) {
            hash = (hash ^ word) * 0x9E3779B97F4A7C15ull;
            hash ^= hash >> 29;
        }
        return static_cast<size_t>(hash);
    }
};

SchemaKey KeyOf(const EVENT_RECORD& record) {
    const EVENT_DESCRIPTOR& descriptor = record.EventHeader.EventDescriptor;
    SchemaKey key{TdhBindingGeneration()};
    std::memcpy(&key[1], &record.EventHeader.ProviderId, sizeof(GUID));
    key[3] = uint64_t{descriptor.Id} << 24 | uint64_t{descriptor.Version} << 16 |
             uint64_t{descriptor.Opcode} << 8 | descriptor.Level;
    key[4] = descriptor.Keyword;
    return key;
}

bool CarriesItsOwnSchema(const EVENT_RECORD& record) {
    for (size_t i = 0; record.ExtendedData != nullptr && i < record.ExtendedDataCount; ++i) {
        if (record.ExtendedData[i].ExtType == kExtTypeTraceLoggingSchema) {
            return true;
        }
    }
    return false;
}

std::shared_ptr<const DecodedSchema> Fetch(const EVENT_RECORD& record, TdhApi& tdh) {
    EventSchemaBuffer schema = QueryEventSchema(record, tdh);
    if (!schema.bytes) {
        return nullptr;
    }
    const bool winlogon = GuidEquals(record.EventHeader.ProviderId, providers::kWinlogon);
    return std::make_shared<const DecodedSchema>(DecodeSchema(std::move(schema), winlogon));
}

}  // namespace

std::shared_ptr<const DecodedSchema> CachedEventSchema(const EVENT_RECORD& record, TdhApi& tdh) {
    if (CarriesItsOwnSchema(record)) {
        return Fetch(record, tdh);
    }
    const SchemaKey key = KeyOf(record);
    // The schemas this thread has used, in a small open-addressed table:
    // most events find theirs here without taking the lock. One of a binding
    // gone is never served, as the key holds the generation.
    struct RecentSchema {
        bool filled = false;
        SchemaKey key{};
        std::shared_ptr<const DecodedSchema> schema;  // null: the event has none
    };
    constexpr size_t kSlots = 128;
    constexpr size_t kProbes = 4;
    auto& recent = PerThread<std::array<RecentSchema, kSlots>>();
    const size_t home = SchemaKeyHash()(key) >> 57;  // the hash's top bits, one of 128
    RecentSchema* slot = nullptr;
    for (size_t probe = 0; probe < kProbes; ++probe) {
        RecentSchema& candidate = recent[(home + probe) % kSlots];
        if (candidate.filled && candidate.key == key) {
            return candidate.schema;
        }
        if (slot == nullptr && (!candidate.filled || candidate.key[0] != key[0])) {
            slot = &candidate;
        }
    }
    if (slot == nullptr) {
        slot = &recent[home];
    }

    static std::mutex mutex;
    static std::unordered_map<SchemaKey, std::shared_ptr<const DecodedSchema>, SchemaKeyHash>
        schemas;
    {
        std::lock_guard<std::mutex> lock(mutex);
        static uint64_t generation = 0;
        if (generation != key[0]) {
            schemas.clear();
            generation = key[0];
        }
        if (const auto found = schemas.find(key); found != schemas.end()) {
            *slot = {true, key, found->second};
            return found->second;
        }
    }
    std::shared_ptr<const DecodedSchema> schema = Fetch(record, tdh);
    const bool keep =
        schema ? schema->decodingSource != kDecodingSourceTraceLogging : !tdh.SchemasMayAppear();
    if (keep) {
        *slot = {true, key, schema};
        std::lock_guard<std::mutex> lock(mutex);
        schemas.emplace(key, schema);
    }
    return schema;
}

}  // namespace logonmon
