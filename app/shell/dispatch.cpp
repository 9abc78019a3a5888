#include "dispatch.h"

#include "volumes.h"

namespace {
bool followed_by(const QStringList& args, const QString& key, int count) {
    qsizetype i = args.indexOf(key);
    return i >= 0 && args.size() - 1 - i >= count;
}
}  // namespace

Mode decideMode(const QStringList& args) {
    if (args.contains(QStringLiteral("--shot"))) return Mode::Screenshot;
    if (followed_by(args, QStringLiteral("--backup-run"), 2)) return Mode::BackupRun;
    if (followed_by(args, QStringLiteral("--backup-check"), 1)) return Mode::BackupCheck;
    if (followed_by(args, QStringLiteral("--restore-run"), 2)) return Mode::RestoreRun;
    if (args.contains(QStringLiteral("--check-update")) || args.contains(QStringLiteral("--fetch-update")))
        return Mode::UpdateCheck;
    return Mode::Window;
}

std::optional<QString> valueAfter(const QStringList& args, const QString& key) {
    qsizetype i = args.indexOf(key);
    if (i < 0 || i + 1 >= args.size()) return std::nullopt;
    return args[i + 1];
}

QString usageText() {
    return QStringLiteral(
        "usage: quillmate-flasher [--drive <folder>]                    open the window\n"
        "       quillmate-flasher --shot <dir> [--drive <folder>]       draw each tab into <dir> as PNG\n"
        "       quillmate-flasher --backup-run <drive> <folder> [--verify]  back up a drive's writing into <folder>\n"
        "       quillmate-flasher --backup-check <folder>              say which cloud service keeps <folder>\n"
        "       quillmate-flasher --restore-run <backup> <drive>       put the writing of a backup folder"
        " back on a drive\n"
        "       quillmate-flasher --check-update                       ask the release feed for a newer version\n"
        "       quillmate-flasher --fetch-update                       also download the newer version and check it\n");
}

std::optional<QString> driveArgumentProblem(const QStringList& args) {
    if (!args.contains(QStringLiteral("--drive"))) return std::nullopt;
    std::optional<QString> folder = valueAfter(args, QStringLiteral("--drive"));
    if (!folder) return QStringLiteral("--drive needs the folder of a Quillmate drive after it.");
    if (Volumes::classify({Volumes::Mount{*folder, QString()}}).isEmpty())
        return QStringLiteral("%1 is not a Quillmate drive: it has no drive key, stats.db or fonts folder. "
                              "Nothing was written to it.")
            .arg(*folder);
    return std::nullopt;
}
