#include "diag/AdapterList.h"

namespace {

class SystemAdapters final : public AdapterList {
  public:
    ULONG Get(ULONG family, ULONG flags, IP_ADAPTER_ADDRESSES* buffer, ULONG* size) override {
        return GetAdaptersAddresses(family, flags, nullptr, buffer, size);
    }
};

}  // namespace

AdapterList& SystemAdapterList() {
    static SystemAdapters system;
    return system;
}
