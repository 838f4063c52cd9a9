#include "trace/TdhApi.h"

#include <atomic>

namespace logonmon {

namespace {

std::atomic<TdhApi*> g_installed{nullptr};

}  // namespace

TdhApi& CurrentTdh() {
    TdhApi* installed = g_installed.load(std::memory_order_acquire);
    return installed != nullptr ? *installed : DefaultTdh();
}

ScopedTdhBinding::ScopedTdhBinding(TdhApi& tdh)
    : previous_(g_installed.exchange(&tdh, std::memory_order_acq_rel)) {}

ScopedTdhBinding::~ScopedTdhBinding() {
    g_installed.store(previous_, std::memory_order_release);
}

}  // namespace logonmon
