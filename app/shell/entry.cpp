#include "entry.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTabWidget>
#include <QTimer>
#include <cstdio>

#include "app_object.h"
#include "dispatch.h"
#include "headless.h"
#include "main_window.h"
#include "shots.h"

namespace {

QStringList arguments(int argc, char** argv) {
    QStringList args;
    for (int i = 0; i < argc; ++i) args << QString::fromLocal8Bit(argv[i]);
    return args;
}

bool has_display() { return qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY"); }

int not_built_yet(const char* what) {
    std::fprintf(stdout, "%s is not available in this build yet\n", what);
    return 2;
}

// QM_REPORT_WINDOW=1: after the first paint, print what the window shows and quit. Used by the
// real-window test and the start-up benchmark.
void report_first_paint(MainWindow* window, const QElapsedTimer& clock) {
    QObject::connect(window, &MainWindow::firstPainted, window, [window, &clock] {
        QStringList labels;
        for (int i = 0; i < window->tabs()->count(); ++i) labels << window->tabs()->tabText(i);
        std::printf("window: %s\ntabs: %s\nfirst paint after %lld ms\n", qPrintable(window->windowTitle()),
                    qPrintable(labels.join(QLatin1Char('|'))), static_cast<long long>(clock.elapsed()));
        std::fflush(stdout);
        QTimer::singleShot(0, qApp, &QApplication::quit);
    });
}

int run_window(const QStringList& args, const QElapsedTimer& clock) {
    QuillmateFlasherApp app;
    app.start(args);
    MainWindow window(&app);
    if (qEnvironmentVariableIntValue("QM_REPORT_WINDOW")) report_first_paint(&window, clock);
    window.show();
    return QApplication::exec();
}

}  // namespace

int Entry::main(int argc, char** argv) {
    QElapsedTimer clock;
    clock.start();
    QStringList args = arguments(argc, argv);
    Mode mode = decideMode(args);
    switch (mode) {
        case Mode::BackupRun: return Headless::backupRun(args);
        case Mode::BackupCheck: return Headless::backupCheck(args);
        case Mode::UpdateCheck: return not_built_yet("the update check");
        case Mode::Screenshot:
            if (!has_display()) qputenv("QT_QPA_PLATFORM", "offscreen");
            break;
        case Mode::Window: break;
    }
    QApplication qt(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Quillmate Flasher"));
    QApplication::setOrganizationName(QStringLiteral("Quillmate"));
    if (mode == Mode::Screenshot) return Shots::run(args);
    return run_window(args, clock);
}
