// Loading a drive with a full ring and 1,000 documents into the shown window, then publishing its
// statistics to the account service on loopback: the longest gap between ticks of a 1 ms timer
// on the main thread, against the same window left idle as long.
#include <QApplication>
#include <QElapsedTimer>
#include <QTabWidget>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <csignal>
#include <functional>
#include <unistd.h>

#include "child_process.h"

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

// The account service on a free loopback port with one account, stopped when this ends (and by
// its own time limit should this process die first). Empty when it could not start.
class Service {
public:
    explicit Service(const QString& data) {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost);
        base_ = QString("http://127.0.0.1:%1").arg(probe.serverPort());
        QString port = QString::number(probe.serverPort());
        probe.close();
        QString db = data + "/accounts.db";
        QByteArray add = QString("printf 'bench password\\n' | '%1' add-user --db '%2' bench@example.org").arg(QM_SERVER_PATH, db).toUtf8();
        const char* addArgv[] = {"/bin/sh", "-c", add.constData(), nullptr};
        int out = -1;
        pid_t adder = ChildProcess::spawnReadingOutput(addArgv, &out, true);
        if (adder < 0 || ChildProcess::exitStatus(adder) != 0) return;
        ::close(out);
        QByteArray listen = ("127.0.0.1:" + port).toUtf8(), dbPath = db.toUtf8();
        const char* argv[] = {"/usr/bin/timeout", "120", QM_SERVER_PATH, "--db", dbPath.constData(), "--listen", listen.constData(), nullptr};
        pid_ = ChildProcess::spawnReadingOutput(argv, &out_, true);
        char line[256];
        if (pid_ < 0 || ::read(out_, line, sizeof line) <= 0) base_.clear();  // its first line says it listens
    }
    ~Service() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ChildProcess::exitStatus(pid_);
        }
        if (out_ >= 0) ::close(out_);
    }
    const QString& base() const { return base_; }

private:
    QString base_;
    pid_t pid_ = -1;
    int out_ = -1;
};

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

    QTemporaryDir data;
    Service service(data.path());
    if (service.base().isEmpty()) {
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
