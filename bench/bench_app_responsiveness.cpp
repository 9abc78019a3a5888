// Loading a drive with a full ring and 1,000 documents into the shown window, then publishing its
// statistics to the account service on loopback: the longest gap between ticks of a 1 ms timer
// on the main thread, against the same window left idle as long.
#include <QApplication>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTest>

#include "app_object.h"
#include "bench_timer.h"
#include "full_drive.h"
#include "local_service.h"
#include "main_thread_stall.h"
#include "main_window.h"

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

    QTemporaryDir data;
    LocalService service;
    QString db = data.filePath("accounts.db");
    if (runProgram({QM_SERVER_PATH, "add-user", "--db", db, "bench@example.org"}, "bench password\n", "/dev/null") != 0 ||
        !service.start(QM_SERVER_PATH, {"--db", db})) {
        std::printf("publishing: SKIPPED, the account service did not start\n");
        return 0;
    }
    qputenv("QM_SERVER", service.base().toUtf8());
    qputenv("XDG_DATA_HOME", data.path().toUtf8());  // the sign-in token stays out of the user's own folder
    app.account.setEmail("bench@example.org");
    app.account.setPassword("bench password");
    app.account.signIn();
    if (!QTest::qWaitFor([&] { return !app.account.working(); }, 30000)) {
        std::printf("publishing: SKIPPED, the sign-in did not finish\n");
        return 0;
    }
    std::printf("account: %s\n", qPrintable(app.account.accountStatus()));
    double publishing = longest_gap_ms(1500, [&] {
        window.tabs()->setCurrentIndex(1);
        app.stats.publish();
    });
    std::printf("publish: %s\n", qPrintable(app.stats.status()));
    report("longest main-thread stall while publishing", publishing, "same window idle", idle, 50);
    return 0;
}
