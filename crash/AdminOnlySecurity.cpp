#include "crash/AdminOnlySecurity.h"

#include <sddl.h>

namespace {

// Protected (nothing inherited from above), full access for SYSTEM and the
// Administrators group, passed on to files and folders made inside.
constexpr wchar_t kAdminOnly[] = L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

}  // namespace

AdminOnlySecurity::AdminOnlySecurity() {
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (ConvertStringSecurityDescriptorToSecurityDescriptorW(kAdminOnly, SDDL_REVISION_1,
                                                             &descriptor, nullptr)) {
        descriptor_.Reset(descriptor);
    }
    attributes_.nLength = sizeof(attributes_);
    attributes_.lpSecurityDescriptor = descriptor_.Get();
    attributes_.bInheritHandle = FALSE;
}

SECURITY_ATTRIBUTES* AdminOnlySecurity::Attributes() {
    return descriptor_ ? &attributes_ : nullptr;
}
