#include "trace/TdhWithBuiltInSchemas.h"

#include <cstring>
#include <utility>

namespace logonmon {

TdhWithBuiltInSchemas::TdhWithBuiltInSchemas(
    TdhApi& system, TdhApi& builtIn, std::function<void(const EVENT_RECORD&)> onFirstBuiltIn)
    : system_(system), builtIn_(builtIn), onFirstBuiltIn_(std::move(onFirstBuiltIn)) {}

TdhWithBuiltInSchemas::Kind TdhWithBuiltInSchemas::KindOf(const EVENT_RECORD& event) {
    std::array<uint8_t, sizeof(GUID)> provider;
    std::memcpy(provider.data(), &event.EventHeader.ProviderId, provider.size());
    const EVENT_DESCRIPTOR& descriptor = event.EventHeader.EventDescriptor;
    return {provider, descriptor.Id, descriptor.Version};
}

TdhApi& TdhWithBuiltInSchemas::SourceOf(const EVENT_RECORD& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    return builtInKinds_.count(KindOf(event)) != 0 ? builtIn_ : system_;
}

uint32_t TdhWithBuiltInSchemas::GetEventInformation(const EVENT_RECORD& event,
                                                    TRACE_EVENT_INFO* buffer,
                                                    uint32_t* bufferSize) {
    TdhApi& source = SourceOf(event);
    const uint32_t requested = *bufferSize;
    const uint32_t result = source.GetEventInformation(event, buffer, bufferSize);
    if (&source == &builtIn_ || result == etw::kErrorSuccess ||
        result == etw::kErrorInsufficientBuffer) {
        return result;
    }
    *bufferSize = requested;
    const uint32_t builtInResult = builtIn_.GetEventInformation(event, buffer, bufferSize);
    if (builtInResult != etw::kErrorSuccess && builtInResult != etw::kErrorInsufficientBuffer) {
        return result;
    }
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        first = builtInKinds_.empty();
        builtInKinds_.insert(KindOf(event));
    }
    if (first && onFirstBuiltIn_) {
        onFirstBuiltIn_(event);
    }
    return builtInResult;
}

uint32_t TdhWithBuiltInSchemas::GetPropertySize(const EVENT_RECORD& event,
                                                const PROPERTY_DATA_DESCRIPTOR& descriptor,
                                                uint32_t* propertySize) {
    return SourceOf(event).GetPropertySize(event, descriptor, propertySize);
}

uint32_t TdhWithBuiltInSchemas::GetProperty(const EVENT_RECORD& event,
                                            const PROPERTY_DATA_DESCRIPTOR& descriptor,
                                            uint32_t bufferSize, uint8_t* buffer) {
    return SourceOf(event).GetProperty(event, descriptor, bufferSize, buffer);
}

}  // namespace logonmon
