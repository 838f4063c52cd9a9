// The sample traces: scripted logons that show the summary's main cases.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <vector>

#include "tools/LogonEvents.h"

namespace plmx::samples {

struct SampleTrace {
    const char* file;  // name in samples/
    std::function<void(const LogonEvents::Sink&)> script;
};

const std::vector<SampleTrace>& SampleTraces();

// The sample's events in time order.
std::vector<std::unique_ptr<plmx::testing::EventBuilder>> ScriptedEvents(
    const SampleTrace& sample);

// The sample as an .etl file, as a single-processor session writes one; false when the stream failed.
bool WriteSampleTrace(const SampleTrace& sample, std::ostream& out);

}  // namespace plmx::samples
