#include <atomic>
#include <gtest/gtest.h>
#include <random>
#include <thread>

#include "AllocationCounter.h"
#include "MixerTestSupport.h"
#include "audio/HostTime.h"
#include "audio/Mixer.h"
#include "audio/PriorityMutex.h"

namespace {

// The render thread must never allocate or free: a page fault or an allocator lock there is
// an audible drop-out. Count every malloc/free made on the render thread while another thread
// plays, stops, seeks, edits and reaps voices as fast as it can.
TEST(MixerRealtime, RenderThreadNeverAllocatesWhileVoicesComeAndGo) {
    Mixer mixer;
    const int kChannels = 8;
    const std::int64_t kBlock = 256;
    std::vector<std::vector<float>> buffers(kChannels, std::vector<float>(kBlock));
    std::vector<AudioChannelBuffer> list;
    for (auto& b : buffers)
        list.push_back({b.data(), b.size() * sizeof(float)});

    std::vector<AudioClipPtr> clips{constantClip(0.1f, 3000, 2), distinctClip(700, 44100.0),
                                    constantClip(0.2f, 50000, 4, 96000.0)};
    mixer.setToneChannel(3);

    std::atomic<bool> running{true};
    std::atomic<std::int64_t> blocks{0};
    std::uint64_t allocationsBefore = 0;
    std::uint64_t allocationsAfter = 0;

    std::thread render([&] {
        std::uint64_t host = HostTime::now();
        // Warm-up outside the count: first-touch work of the C library (e.g. sin tables).
        mixer.render(kBlock, AudioTimeStamp{host, true}, list);
        allocationsBefore = AllocationCounter::count();
        AllocationCounter::countOnThisThread(true);
        while (running.load(std::memory_order_relaxed)) {
            host += 5'333'333;
            mixer.render(kBlock, AudioTimeStamp{host, true}, list);
            blocks.fetch_add(1, std::memory_order_relaxed);
        }
        AllocationCounter::countOnThisThread(false);
        allocationsAfter = AllocationCounter::count();
    });

    std::mt19937 random(42);
    std::vector<std::int64_t> ids;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (blocks.load() < 5000 && std::chrono::steady_clock::now() < deadline) {
        const auto& clip = clips[random() % clips.size()];
        RouteList routes;
        for (std::int64_t c = 0; c < clip->channelCount; ++c)
            routes.push_back({c, static_cast<std::int64_t>(random() % 10)});
        const bool deferred = random() % 4 == 0;
        const auto id =
            mixer.play(clip, routes, 0.5f, (random() % 3) * 0.01, random() % 2 == 0, deferred);
        if (deferred)
            mixer.setStart(id, HostTime::now() + random() % 20'000'000);
        ids.push_back(id);
        const auto pick = [&] { return ids[random() % ids.size()]; };
        mixer.seek(pick(), (random() % 100) * 0.001, random() % 3 == 0 ? HostTime::now() : 0);
        mixer.stop(pick(), (random() % 5) * 0.002);
        mixer.setVolume(pick(), 0.3f);
        mixer.setLoop(pick(), false);
        mixer.setMuted({static_cast<std::int64_t>(random() % 8)});
        if (random() % 3 == 0) {
            mixer.snapshot();
            mixer.removeDone();
            mixer.takeMeters(8);
        }
        if (ids.size() > 2000)
            ids.erase(ids.begin(), ids.begin() + 1000);
        std::this_thread::yield();
    }
    running = false;
    render.join();

    EXPECT_GE(blocks.load(), 5000);
    EXPECT_GT(mixer.voiceCount() + ids.size(), 0u);
    EXPECT_EQ(allocationsAfter - allocationsBefore, 0u);
}

TEST(MixerRealtime, CounterSeesAllocationsOnACountingThread) {
    // Guards the test above against a counter that counts nothing.
    const auto before = AllocationCounter::count();
    AllocationCounter::countOnThisThread(true);
    auto* p = new std::vector<int>(100);
    delete p;
    AllocationCounter::countOnThisThread(false);
    EXPECT_GE(AllocationCounter::count() - before, 2u);
}

TEST(MixerRealtime, LockInheritsPriority) {
    PriorityMutex mutex;
    EXPECT_TRUE(mutex.inheritsPriority());
}

} // namespace
