// Security for crash dumps and their folder: a full dump of a LocalSystem
// process holds user names and token memory, so only SYSTEM and the
// Administrators group may open them.
#pragma once

#include <windows.h>

#include "trace/UniqueHandle.h"

class AdminOnlySecurity {
  public:
    AdminOnlySecurity();
    AdminOnlySecurity(const AdminOnlySecurity&) = delete;
    AdminOnlySecurity& operator=(const AdminOnlySecurity&) = delete;

    // For CreateFileW and folder creation; null (the default security) only
    // when the descriptor could not be built.
    SECURITY_ATTRIBUTES* Attributes();

  private:
    UniqueLocalMemory descriptor_;
    SECURITY_ATTRIBUTES attributes_{};
};
