#include "audio/SampleBuffer.h"

#include <functional>
#include <gtest/gtest.h>
#include <vector>

namespace {

// One block of samples through the steps of a decode: appends that grow it, padding that never
// shortens (nor fails at the length it has), dropping from the front, trimming (to nothing, then
// used again), a reserve that cannot be had leaving it as it was, and moves.
TEST(SampleBuffer, EachStepLeavesExactlyTheSamplesItShould) {
    SampleBuffer buffer;
    const float three[] = {1, 2, 3};
    struct Step {
        const char* what;
        std::function<bool()> act;
        std::vector<float> holds;
    };
    const Step steps[] = {
        {"append three", [&] { return buffer.append(three, 3); }, {1, 2, 3}},
        {"append none", [&] { return buffer.append(three, 0); }, {1, 2, 3}},
        {"drop one", [&] { return buffer.dropFront(1), true; }, {2, 3}},
        {"pad to five", [&] { return buffer.padTo(5); }, {2, 3, 0, 0, 0}},
        {"pad to two", [&] { return buffer.padTo(2); }, {2, 3, 0, 0, 0}},
        {"a reserve too large",
         [&] { return !buffer.reserve(static_cast<std::size_t>(-1)); },
         {2, 3, 0, 0, 0}},
        {"trim", [&] { return buffer.shrinkToFit(), buffer.capacity() == 5; }, {2, 3, 0, 0, 0}},
        {"drop more than it holds", [&] { return buffer.dropFront(9), true; }, {}},
        {"trim to nothing",
         [&] { return buffer.shrinkToFit(), !buffer.data() && buffer.capacity() == 0; },
         {}},
        {"pad to its own length, nothing", [&] { return buffer.padTo(0); }, {}},
        {"used again", [&] { return buffer.append(three + 2, 1); }, {3}},
        {"moved out and back",
         [&] {
             SampleBuffer other(std::move(buffer));
             const bool emptied = buffer.size() == 0 && !buffer.data();
             buffer = std::move(other);
             return emptied;
         },
         {3}},
    };
    for (const Step& step : steps) {
        EXPECT_TRUE(step.act()) << step.what;
        EXPECT_EQ(std::vector<float>(buffer.data(), buffer.data() + buffer.size()), step.holds)
            << step.what;
        EXPECT_GE(buffer.capacity(), buffer.size()) << step.what;
    }
}

} // namespace
