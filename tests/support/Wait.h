#pragma once

#include <functional>

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

// Waiting in a test with the event loop running meanwhile (queued calls, timers, sockets). The
// loop sleeps until an event or 10 ms pass: a loop that polled would take a core from whatever
// the test waits for.
namespace Wait {

// Until `done` holds or `ms` pass; whether it holds.
inline bool until(const std::function<bool()>& done, int ms = 5000) {
    QElapsedTimer waited;
    waited.start();
    while (!done() && waited.elapsed() < ms) {
        QEventLoop loop;
        QTimer::singleShot(10, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return done();
}

// For `ms`, whatever happens.
inline void pump(int ms) {
    until([] { return false; }, ms);
}

} // namespace Wait
