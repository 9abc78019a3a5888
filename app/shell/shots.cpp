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
#include "tabs.h"

namespace {

void say(const QString& line) {
    std::fputs(qPrintable(line + QLatin1Char('\n')), stdout);
    std::fflush(stdout);
}

// Turns the event loop until the models' background work has landed, within a bound.
void settle(const QuillmateFlasherApp& app) {
    QDeadlineTimer deadline(5000);
    do {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    } while (app.busy() && !deadline.hasExpired());
    for (int i = 0; i < 12; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
}

QPixmap render(QuillmateFlasherApp* app, const TabEntry& tab) {
    QWidget window;
    window.setWindowTitle(QStringLiteral("Quillmate"));
    window.setFixedSize(MainWindow::kTabWidth, MainWindow::kTabHeight);
    auto* layout = new QVBoxLayout(&window);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(tab.create(app));
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
    app.start(args, QuillmateFlasherApp::Start::Screenshot, QStringLiteral("Quillmate"));
    int written = 0;
    for (const TabEntry& tab : tabTable()) {
        QPixmap pixmap = render(&app, tab);
        if (pixmap.isNull()) {
            say(QStringLiteral("FAILED to render ") + QLatin1String(tab.image));
            continue;
        }
        QString path = QDir(*folder).filePath(QLatin1String(tab.image) + QStringLiteral(".png"));
        if (!pixmap.save(path, "PNG")) {
            say(QStringLiteral("FAILED to write ") + path);
            continue;
        }
        ++written;
    }
    say(QStringLiteral("%1 image(s) written to %2").arg(written).arg(*folder));
    return written == 0 ? 1 : 0;
}
