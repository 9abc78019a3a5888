// Cold start to the first painted window, and the screenshot mode, each against the smallest
// Qt program that paints one window, started the same way in the same run.
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <algorithm>
#include <cstdio>
#include <vector>

#include "bench_timer.h"
#include "full_drive.h"

namespace {

double run_ms(const QString& program, const QStringList& args, const QProcessEnvironment& env) {
    QProcess p;
    p.setProcessEnvironment(env);
    QElapsedTimer t;
    t.start();
    p.start(program, args);
    if (!p.waitForFinished(60000) || p.exitCode() != 0) {
        std::fprintf(stderr, "%s failed: %s\n", qPrintable(program), p.readAllStandardError().constData());
        std::exit(1);
    }
    return double(t.nsecsElapsed()) / 1e6;
}

double median_run_ms(int reps, const QString& program, const QStringList& args, const QProcessEnvironment& env) {
    std::vector<double> ms;
    run_ms(program, args, env);  // warm the page cache
    for (int i = 0; i < reps; ++i) ms.push_back(run_ms(program, args, env));
    std::nth_element(ms.begin(), ms.begin() + long(ms.size() / 2), ms.end());
    return ms[ms.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    FullDrive drive(8);

    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("QT_QPA_PLATFORM", "offscreen");
    env.insert("QM_REPORT_WINDOW", "1");
    env.insert("QM_SERVER", "http://127.0.0.1:9");  // the launch check of updates stays on this machine
    QString d = QString::fromStdString(drive.root());
    double baseline = median_run_ms(15, QM_BASELINE_PATH, {}, env);
    double window = median_run_ms(15, QM_APP_PATH, {"--drive", d}, env);
    double shots = median_run_ms(9, QM_APP_PATH, {"--shot", QString::fromStdString(drive.scratch("shots")), "--drive", d}, env);
    report("cold start to first painted window (full drive)", window, "smallest Qt window", baseline, 500);
    report("screenshot mode, every tab that exists", shots, "smallest Qt window", baseline, 2000);
    return 0;
}
