// The longest gap between ticks of a 1 ms timer on the main thread while some work runs: what a
// user feels as the window freezing.
#pragma once
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>
#include <algorithm>
#include <functional>

// Turns the event loop for at least atLeastMs after start() and until done(); the longest gap.
inline double longest_gap_ms(int atLeastMs, const std::function<void()>& start,
                             const std::function<bool()>& done = [] { return true; }) {
    QElapsedTimer clock;
    double last = 0, worst = 0;
    QTimer tick;
    tick.setInterval(1);
    QObject::connect(&tick, &QTimer::timeout, [&] {
        double now = double(clock.nsecsElapsed()) / 1e6;
        worst = std::max(worst, now - last);
        last = now;
    });
    clock.start();
    tick.start();
    QTimer::singleShot(0, start);
    QEventLoop loop;
    QTimer finished;
    QObject::connect(&finished, &QTimer::timeout, [&] {
        if (clock.elapsed() >= atLeastMs && done()) loop.quit();
    });
    finished.start(10);
    loop.exec();
    return worst;
}
