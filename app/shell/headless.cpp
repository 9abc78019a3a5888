#include "headless.h"

#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <cstdio>

#include "backup.h"
#include "backup_restore.h"
#include "cloud_sync.h"
#include "dispatch.h"
#include "qm_core.h"

namespace {

void printLine(const QString& text) {
    std::fputs(text.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
}

// A progress line on the terminal, redrawn in place at most ten times a second. Never written
// to a file or a pipe, where standard output carries the result lines alone.
class TerminalProgress {
public:
    TerminalProgress() : enabled_(::isatty(STDERR_FILENO) == 1) { clock_.start(); }
    ~TerminalProgress() {
        if (drawn_) std::fputs("\r\033[K", stderr);
    }
    Backup::RunOptions options() {
        Backup::RunOptions o;
        if (enabled_) o.progress = [this](const BackupProgress& p) { draw(p); };
        return o;
    }

private:
    void draw(const BackupProgress& p) {
        if (p.filesDone != p.filesTotal && clock_.elapsed() < 100 && drawn_) return;
        clock_.restart();
        drawn_ = true;
        std::fprintf(stderr, "\r\033[K%d of %d files, %s of %s", p.filesDone, p.filesTotal,
                     BackupResult::human(p.bytesDone).toUtf8().constData(),
                     BackupResult::human(p.bytesTotal).toUtf8().constData());
        std::fflush(stderr);
    }

    bool enabled_;
    bool drawn_ = false;
    QElapsedTimer clock_;
};

QmVolume volumeAt(const QString& path) {
    QmVolume v;
    v.path = path;
    v.name = QFileInfo(QDir::cleanPath(path)).fileName();
    v.hasKey = qm_is_drive(QFile::encodeName(path).constData()) != 0;
    return v;
}

}  // namespace

namespace Headless {

int backupRun(const QStringList& args) {
    qsizetype at = args.indexOf(QStringLiteral("--backup-run"));
    QmVolume volume = volumeAt(args[at + 1]);
    QString destination = args[at + 2];
    BackupResult result;
    {
        TerminalProgress progress;
        result = Backup::run(volume, destination, args.contains(QStringLiteral("--verify")), progress.options());
    }
    printLine(result.summary());
    for (const QString& failure : result.failures) printLine(QStringLiteral("  UNVERIFIED: ") + failure);
    if (result.cloudWarning) printLine(QStringLiteral("  WARNING: ") + *result.cloudWarning);
    if (!result.folder.isEmpty()) {
        if (std::optional<QString> note = CloudSync::uploadNote(result.folder))
            printLine(QStringLiteral("  NOTE: ") + *note);
        printLine(QStringLiteral("into: ") + result.folder);
    }
    std::fflush(stdout);
    return result.error || !result.failures.isEmpty() ? 1 : 0;
}

int backupCheck(const QStringList& args) {
    QString folder = *valueAfter(args, QStringLiteral("--backup-check"));
    if (std::optional<QString> problem = Backup::destinationProblem(folder)) {
        printLine(QStringLiteral("folder:  ") + folder);
        printLine(QStringLiteral("error:   ") + *problem);
        std::fflush(stdout);
        return 1;
    }
    std::optional<QString> service = CloudSync::service(folder);
    bool named = service && CloudSync::uploadedByClient(*service);
    std::optional<QString> warning = CloudSync::check(folder);
    printLine(QStringLiteral("folder:  ") + folder);
    printLine(QStringLiteral("service: ") +
              (named ? *service : QStringLiteral("(none, or its client is not running)")));
    printLine(QStringLiteral("warning: ") + warning.value_or(QStringLiteral("(none)")));
    std::fflush(stdout);
    return 0;
}

int restoreRun(const QStringList& args) {
    qsizetype at = args.indexOf(QStringLiteral("--restore-run"));
    RestoreResult result;
    {
        TerminalProgress progress;
        result = Backup::restore(args[at + 1], args[at + 2], progress.options());
    }
    printLine(result.summary());
    for (const QString& failure : result.failures) printLine(QStringLiteral("  NOT PUT BACK: ") + failure);
    std::fflush(stdout);
    return result.error || !result.failures.isEmpty() ? 1 : 0;
}

}  // namespace Headless
