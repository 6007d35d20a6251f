#include <atomic>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <pthread.h>
#include <random>
#include <sched.h>
#include <sstream>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

#include "AllocationCounter.h"
#include "MixerTestSupport.h"
#include "Sanitizer.h"
#include "audio/HostTime.h"
#include "audio/Mixer.h"
#include "audio/PriorityMutex.h"

namespace {

// The render thread must never allocate or free: a page fault or an allocator lock there is
// an audible drop-out. Count every malloc/free made on the render thread while another thread
// plays, stops, seeks, edits and reaps voices as fast as it can.
TEST(MixerRealtime, RenderThreadNeverAllocatesWhileVoicesComeAndGo) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer's allocator replaces the one this test counts";
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
    std::atomic<std::int64_t> soundingBlocks{0}; // blocks with a voice on some output
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
            bool sounding = false;
            for (int c = 0; c < kChannels; ++c) {
                if (c == 3)
                    continue; // the test tone's
                for (float v : buffers[static_cast<std::size_t>(c)])
                    sounding = sounding || v != 0.0f;
            }
            if (sounding)
                soundingBlocks.fetch_add(1, std::memory_order_relaxed);
        }
        AllocationCounter::countOnThisThread(false);
        allocationsAfter = AllocationCounter::count();
    });

    std::mt19937 random(42);
    std::vector<std::int64_t> ids;
    // Nor may the control thread allocate while it holds the lock the render thread waits on.
    const std::uint64_t underLockBefore = AllocationCounter::underPriorityLock();
    const std::uint64_t locksBefore = AllocationCounter::priorityLocksTaken();
    // Streams written by this thread while the render thread plays them, some run dry.
    std::vector<AudioStreamPtr> streams;
    const std::vector<float> feed(2048, 0.25f);
    const float* const feeds[2] = {feed.data(), feed.data()};
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    // Both sides must have done their share: on a loaded machine either may race ahead.
    int operations = 0;
    while ((blocks.load() < 5000 || operations < 1000) &&
           std::chrono::steady_clock::now() < deadline) {
        ++operations;
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
        if (operations % 8 == 0) {
            if (streams.size() == 4) {
                streams.front()->finish();
                streams.erase(streams.begin());
            }
            streams.push_back(std::make_shared<AudioStream>(2, 4096, 48000.0, 0, 100000));
            ids.push_back(mixer.playStream(streams.back(), {{0, 1}, {1, 5}}, 0.5f, 0.01, false));
        }
        for (const auto& stream : streams)
            stream->write(feeds, static_cast<std::int64_t>(random() % 2048));
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
    // The count means something only if the blocks really mixed voices while they changed.
    EXPECT_GE(operations, 1000);
    EXPECT_GT(soundingBlocks.load(), 200);
    EXPECT_EQ(allocationsAfter - allocationsBefore, 0u);
    EXPECT_EQ(AllocationCounter::underPriorityLock() - underLockBefore, 0u);
    EXPECT_GT(AllocationCounter::priorityLocksTaken() - locksBefore, 10000u);
}

TEST(MixerRealtime, CountersSeeAllocationsOnACountingThreadAndUnderTheLock) {
    if (kSanitized)
        GTEST_SKIP() << "the sanitizer's allocator replaces the one this test counts";
    // Guards the test above against a counter that counts nothing.
    const auto before = AllocationCounter::count();
    AllocationCounter::countOnThisThread(true);
    auto* p = new std::vector<int>(100);
    delete p;
    AllocationCounter::countOnThisThread(false);
    EXPECT_GE(AllocationCounter::count() - before, 2u);
    const auto underLock = AllocationCounter::underPriorityLock();
    PriorityMutex mutex;
    const auto allocateAndFree = [] { // volatile: neither call may be left out
        void* volatile block = std::malloc(64);
        std::free(block);
    };
    {
        std::lock_guard guard(mutex);
        allocateAndFree();
    }
    allocateAndFree();
    EXPECT_EQ(AllocationCounter::underPriorityLock() - underLock, 2u);
}

// A real-time thread waiting for the lock lifts the holder to its own priority: what keeps a
// main thread preempted inside a mixer call from stalling the audio. Read from the kernel: the
// holder's effective priority (/proc/…/stat field 18) while the waiter blocks.
TEST(MixerRealtime, AWaitingRealTimeThreadLiftsTheLockHolder) {
    auto effectivePriority = [](pid_t tid) {
        std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
        std::string text((std::istreambuf_iterator<char>(stat)), {});
        std::istringstream fields(text.substr(text.rfind(')') + 2));
        std::string field;
        for (int i = 3; i <= 18; ++i)
            fields >> field;
        return std::stoi(field);
    };
    PriorityMutex mutex;
    ASSERT_TRUE(mutex.inheritsPriority());
    std::atomic<pid_t> holderTid{0};
    std::atomic<bool> release{false};
    std::thread holder([&] {
        mutex.lock();
        holderTid = static_cast<pid_t>(syscall(SYS_gettid));
        while (!release.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        mutex.unlock();
    });
    while (holderTid.load() == 0)
        std::this_thread::yield();
    const int before = effectivePriority(holderTid);

    std::atomic<bool> waiting{false};
    std::thread waiter([&] {
        sched_param param{};
        param.sched_priority = 50;
        if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) != 0) {
            waiting = true; // not allowed here: the test says so below
            return;
        }
        waiting = true;
        mutex.lock();
        mutex.unlock();
    });
    while (!waiting.load())
        std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const int during = effectivePriority(holderTid);
    release = true;
    holder.join();
    waiter.join();
    if (during == before && geteuid() != 0)
        GTEST_SKIP() << "real-time scheduling is not permitted for this user";
    EXPECT_EQ(before, 20);  // a normal thread, nice 0
    EXPECT_EQ(during, -51); // SCHED_FIFO 50 as the kernel counts it: −1 − 50
}

} // namespace
