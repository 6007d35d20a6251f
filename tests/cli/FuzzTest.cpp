#include <cstdio>
#include <gtest/gtest.h>

#include "RenderFuzzer.h"
#include "TempDir.h"
#include "model/Prefs.h"

namespace {

// Mutated shows, event scripts and damaged media through `vorlin render`: whatever the input,
// a known exit status, a message for every refusal, and finite samples within the volumes'
// bound. `make bench` runs the same generator far longer.
TEST(RenderFuzz, NoInputCrashesHangsOrPutsGarbageOnTheOutput) {
    Prefs::registerDefaults();
    TempDir dir;
    RenderFuzzer fuzzer(dir.file(""), 20261122);
    const RenderFuzzer::Outcome outcome = fuzzer.run(300);
    std::printf("%d cases: %d rendered, %d refused\n", outcome.cases, outcome.rendered,
                outcome.refused);
    for (const std::string& failure : outcome.failures)
        ADD_FAILURE() << failure;
    // The generator must reach both sides: shows that play and input that is refused.
    EXPECT_GT(outcome.rendered, 30);
    EXPECT_GT(outcome.refused, 30);
}

} // namespace
