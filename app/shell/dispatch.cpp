#include "dispatch.h"

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
