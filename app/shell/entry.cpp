#include "entry.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTabWidget>
#include <QTimer>
#include <cstdio>
#include <cstdlib>

#include "app_object.h"
#include "dispatch.h"
#include "headless.h"
#include "main_window.h"
#include "shots.h"
#include "updater.h"

namespace {

QStringList arguments(int argc, char** argv) {
    QStringList args;
    for (int i = 0; i < argc; ++i) args << QString::fromLocal8Bit(argv[i]);
    return args;
}

void nameApplication() {
    QCoreApplication::setApplicationName(QStringLiteral("Quillmate Flasher"));
    QCoreApplication::setOrganizationName(QStringLiteral("Quillmate"));
}

bool has_display() { return qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY"); }

void printError(const QString& text) {
    std::fprintf(stderr, "quillmate-flasher: %s\n", qPrintable(text));
    std::fflush(stderr);
}

int noDisplay() {
    printError(QStringLiteral("there is no display to open the window on."));
    std::fputs(qPrintable(usageText()), stderr);
    return 2;
}

// A display that is named but cannot be reached ends Qt's start with a fatal error, which would
// abort; a person is told what happened instead.
void reportUnreachableDisplay(QtMsgType type, const QMessageLogContext&, const QString& message) {
    if (type == QtWarningMsg || type == QtCriticalMsg) std::fprintf(stderr, "%s\n", qPrintable(message));
    if (type != QtFatalMsg) return;
    Q_UNUSED(message);  // Qt's own text suggests reinstalling, which never helps here
    printError(QStringLiteral("the window could not be opened on the display \"%1\".")
                   .arg(qEnvironmentVariable("WAYLAND_DISPLAY", qEnvironmentVariable("DISPLAY"))));
    std::fputs(qPrintable(usageText()), stderr);
    std::_Exit(2);
}

// QM_REPORT_WINDOW=1: after the first paint, print what the window shows and quit. Used by the
// real-window test and the start-up benchmark.
void report_first_paint(MainWindow* window, const QuillmateFlasherApp& app, const QElapsedTimer& clock) {
    QObject::connect(window, &MainWindow::firstPainted, window, [window, &app, &clock] {
        QStringList labels;
        for (int i = 0; i < window->tabs()->count(); ++i) labels << window->tabs()->tabText(i);
        std::printf("window: %s\ntabs: %s\nupdates: %s\nfirst paint after %lld ms\n", qPrintable(window->windowTitle()),
                    qPrintable(labels.join(QLatin1Char('|'))), qPrintable(app.settings.status()),
                    static_cast<long long>(clock.elapsed()));
        std::fflush(stdout);
        QTimer::singleShot(0, qApp, &QApplication::quit);
    });
}

// QM_WINDOW_IMAGE=FILE: once the first paint is done and the models' start-up work has landed
// (the launch check of updates among it), save the whole window to FILE and quit. How the
// README's picture of the update banner is made.
void save_window_image(MainWindow* window, const QuillmateFlasherApp& app, const QString& path) {
    QObject::connect(window, &MainWindow::firstPainted, window, [window, &app, path] {
        auto* poll = new QTimer(window);
        QElapsedTimer started;
        started.start();
        QObject::connect(poll, &QTimer::timeout, window, [window, &app, path, poll, started] {
            if (app.busy() && started.elapsed() < 10000) return;
            poll->stop();
            bool saved = window->grab().save(path, "PNG");
            std::printf("%s %s\n", saved ? "saved" : "FAILED to write", qPrintable(path));
            std::fflush(stdout);
            QApplication::exit(saved ? 0 : 1);
        });
        poll->start(50);
    });
}

int run_window(const QStringList& args, const QElapsedTimer& clock) {
    QuillmateFlasherApp app;
    app.start(args);
    MainWindow window(&app);
    if (qEnvironmentVariableIntValue("QM_REPORT_WINDOW")) report_first_paint(&window, app, clock);
    if (qEnvironmentVariableIsSet("QM_WINDOW_IMAGE"))
        save_window_image(&window, app, qEnvironmentVariable("QM_WINDOW_IMAGE"));
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
        case Mode::RestoreRun: return Headless::restoreRun(args);
        case Mode::UpdateCheck: {
            QCoreApplication qt(argc, argv);  // the network needs one, and the settings its names
            nameApplication();
            return Updater::runCommandLineCheck(args);
        }
        case Mode::Screenshot:
            if (std::optional<QString> problem = driveArgumentProblem(args)) printError(*problem);
            if (!has_display()) qputenv("QT_QPA_PLATFORM", "offscreen");
            break;
        case Mode::Window:
            if (std::optional<QString> problem = driveArgumentProblem(args)) {
                printError(*problem);
                return 2;
            }
            if (!has_display() && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) return noDisplay();
            break;
    }
    QtMessageHandler previous = qInstallMessageHandler(reportUnreachableDisplay);
    QApplication qt(argc, argv);
    qInstallMessageHandler(previous);
    nameApplication();
    if (mode == Mode::Screenshot) return Shots::run(args);
    return run_window(args, clock);
}
