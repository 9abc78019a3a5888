#include "shots.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QPixmap>
#include <QVBoxLayout>
#include <cstdio>

#include "app_object.h"
#include "dispatch.h"
#include "main_window.h"

namespace {

struct Image {
    const char* name;
    MainWindow::Tab tab;
};
// In the order they are written; the other tabs' images join as their views land.
const Image kImages[] = {{"mac-stats", MainWindow::Statistics}, {"mac-history", MainWindow::History}};

void say(const QString& line) {
    std::fputs(qPrintable(line + QLatin1Char('\n')), stdout);
    std::fflush(stdout);
}

// Turns the event loop until the statistics model's work has landed, within a bound.
void settle(const QuillmateFlasherApp& app) {
    QDeadlineTimer deadline(3000);
    do {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    } while (app.stats.loading() && !deadline.hasExpired());
    for (int i = 0; i < 12; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

QPixmap render(QuillmateFlasherApp* app, MainWindow::Tab tab) {
    QWidget window;
    window.setWindowTitle(QStringLiteral("Quillmate"));
    window.setFixedSize(MainWindow::kTabWidth, MainWindow::kTabHeight);
    auto* layout = new QVBoxLayout(&window);
    layout->setContentsMargins(0, 0, 0, 0);
    QWidget* view = MainWindow::createTabView(app, tab, &window);
    if (!view) return {};
    layout->addWidget(view);
    window.show();
    settle(*app);
    QPixmap image = window.grab();
    window.hide();
    return image;
}

}  // namespace

int Shots::run(const QStringList& args) {
    std::optional<QString> folder = valueAfter(args, QStringLiteral("--shot"));
    if (!folder) {
        std::fputs("usage: --shot <dir> [--drive <path>]\n", stdout);
        return 2;
    }
    QDir().mkpath(*folder);
    QuillmateFlasherApp app;
    if (std::optional<QString> drive = valueAfter(args, QStringLiteral("--drive"))) {
        app.pinDrive(*drive, QStringLiteral("Quillmate"));
    } else {
        app.stats.rescan();
        app.history.rescan();
    }
    int written = 0;
    for (const Image& image : kImages) {
        QPixmap pixmap = render(&app, image.tab);
        if (pixmap.isNull()) {
            say(QStringLiteral("FAILED to render ") + QLatin1String(image.name));
            continue;
        }
        QString path = QDir(*folder).filePath(QLatin1String(image.name) + QStringLiteral(".png"));
        if (!pixmap.save(path, "PNG")) {
            say(QStringLiteral("FAILED to write ") + path);
            continue;
        }
        ++written;
    }
    say(QStringLiteral("%1 image(s) written to %2").arg(written).arg(*folder));
    return written == 0 ? 1 : 0;
}
