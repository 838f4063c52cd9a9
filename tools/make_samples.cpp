// Writes the sample traces into a folder (default "samples"): scripted
// logons on a remote virtual desktop, recorded as the boot-time file session
// would record them.
//
//   make_samples [folder]
#include <cstdio>
#include <fstream>
#include <string>

#include "tools/SampleTraces.h"

int main(int argc, char** argv) {
    const std::string folder = argc > 1 ? argv[1] : "samples";
    bool ok = true;
    for (const plmx::samples::SampleTrace& sample : plmx::samples::SampleTraces()) {
        const std::string path = folder + "/" + sample.file;
        std::ofstream file(path, std::ios::binary);
        if (!plmx::samples::WriteSampleTrace(sample, file)) {
            std::fprintf(stderr, "%s: cannot write\n", path.c_str());
            ok = false;
            continue;
        }
        std::printf("%s\n", path.c_str());
    }
    return ok ? 0 : 1;
}
