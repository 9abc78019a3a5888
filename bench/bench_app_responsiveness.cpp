// Loading a drive with a full ring and 1,000 documents into the shown window: the longest gap
// between ticks of a 1 ms timer on the main thread, against the same window left idle as long.
#include <QApplication>
#include <QElapsedTimer>
#include <QTabWidget>
#include <QTimer>
#include <functional>

#include "app_object.h"
#include "bench_timer.h"
#include "full_drive.h"
#include "main_window.h"

namespace {

// Runs the event loop for ms milliseconds after start() and returns the longest tick gap.
double longest_gap_ms(int ms, const std::function<void()>& start) {
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
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
    return worst;
}

}  // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication qt(argc, argv);
    FullDrive drive(1000);

    QuillmateFlasherApp app;
    MainWindow window(&app);
    window.show();
    QString root = QString::fromStdString(drive.root());
    double idle = longest_gap_ms(1500, [] {});
    double loading = longest_gap_ms(1500, [&] {
        app.drives.pin(root, "Quillmate");
        window.tabs()->setCurrentIndex(1);  // the history tab, with its 1,000 documents, on screen
    });
    std::printf("loaded %lld documents, %zu days\n", static_cast<long long>(app.history.documents().size()),
                size_t(app.stats.days().size()));
    report("longest main-thread stall while loading the drive", loading, "same window idle", idle, 50);
    return 0;
}
