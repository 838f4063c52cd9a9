#include "trace/ReplayEtlFile.h"

#include "trace/BuiltInSchemaTdh.h"

namespace logonmon {

EtlReadResult ReplayEtlFile(const std::string& path,
                            const std::function<void(const EVENT_RECORD&)>& onEvent) {
    const ScopedTdhBinding schemas(BuiltInSchemaBinding());
    return ReadEtlFile(path, onEvent);
}

}  // namespace logonmon
