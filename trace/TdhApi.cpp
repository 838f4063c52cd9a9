#include "trace/TdhApi.h"

#include "trace/SchemaCache.h"

#include <atomic>

namespace logonmon {

namespace {

std::atomic<TdhApi*> g_installed{nullptr};
std::atomic<uint64_t> g_generation{0};

}  // namespace

TdhApi& CurrentTdh() {
    TdhApi* installed = g_installed.load(std::memory_order_acquire);
    return installed != nullptr ? *installed : DefaultTdh();
}

uint64_t TdhBindingGeneration() {
    return g_generation.load(std::memory_order_acquire);
}

ScopedTdhBinding::ScopedTdhBinding(TdhApi& tdh)
    : previous_(g_installed.exchange(&tdh, std::memory_order_acq_rel)) {
    g_generation.fetch_add(1, std::memory_order_acq_rel);
}

ScopedTdhBinding::~ScopedTdhBinding() {
    g_installed.store(previous_, std::memory_order_release);
    g_generation.fetch_add(1, std::memory_order_acq_rel);
}

}  // namespace logonmon
