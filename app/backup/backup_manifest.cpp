#include "backup_manifest.h"

#include <fcntl.h>
#include <unistd.h>

#include <QDateTime>
#include <QFile>
#include <algorithm>
#include <charconv>

#include "file_writes.h"

namespace {

const char kHeader[] = "# Quillmate backup manifest v1 - sha256, size, modified, verified, path\n";

int64_t number(QByteArrayView field) {
    if (field.startsWith('+')) field = field.sliced(1);
    int64_t value = 0;
    auto [end, ec] = std::from_chars(field.data(), field.data() + field.size(), value);
    return ec == std::errc() && end == field.data() + field.size() ? value : 0;
}

// A row may only name a file inside the folder: a manifest is a file anybody could have edited,
// and its paths are later read and written.
bool isSafeRelative(const QString& path) {
    if (path.isEmpty() || path.contains(QChar(0))) return false;
    const QStringList parts = path.split(QLatin1Char('/'));
    return std::none_of(parts.begin(), parts.end(), [](const QString& p) {
        return p.isEmpty() || p == QLatin1String(".") || p == QLatin1String("..");
    });
}

}  // namespace

BackupManifest::BackupManifest(const QString& folder) : folder_(folder) {
    QFile file(path());
    if (file.open(QIODevice::ReadOnly)) rows_ = parse(file.readAll());
}

QString BackupManifest::path() const { return folder_ + QLatin1Char('/') + QLatin1String(kFileName); }
QString BackupManifest::lostLogPath() const { return path() + QLatin1String("-lost.txt"); }

std::map<QString, BackupEntry> BackupManifest::parse(const QByteArray& text) {
    std::map<QString, BackupEntry> rows;
    for (QByteArray line : text.split('\n')) {
        while (line.endsWith('\r')) line.chop(1);  // a manifest saved on a CRLF system
        if (line.isEmpty() || line.startsWith('#')) continue;
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() < 5) continue;
        BackupEntry e;
        e.sha256 = QString::fromUtf8(fields[0]);
        e.size = number(fields[1]);
        e.modified = number(fields[2]);
        e.verified = number(fields[3]);
        e.path = QString::fromUtf8(fields.mid(4).join('\t'));
        if (!isSafeRelative(e.path)) continue;
        rows[e.path] = std::move(e);
    }
    return rows;
}

QByteArray BackupManifest::serialize(const std::map<QString, BackupEntry>& rows) {
    QByteArray out(kHeader);
    for (const auto& [path, e] : rows) {
        out += e.sha256.toUtf8() + '\t' + QByteArray::number(e.size) + '\t' + QByteArray::number(e.modified) + '\t' +
               QByteArray::number(e.verified) + '\t' + path.toUtf8() + '\n';
    }
    return out;
}

bool BackupManifest::save() const { return FileWrites::replaceDurably(path(), serialize(rows_)); }

QList<BackupEntry> BackupManifest::stalest(int n) const {
    QList<BackupEntry> all;
    all.reserve(static_cast<qsizetype>(rows_.size()));
    for (const auto& [path, e] : rows_) all.append(e);
    std::stable_sort(all.begin(), all.end(),
                     [](const BackupEntry& a, const BackupEntry& b) { return a.verified < b.verified; });
    return all.mid(0, std::clamp<qsizetype>(n, 0, all.size()));
}

void BackupManifest::recordLost(const QString& path) const {
    QByteArray line = QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm")).toUtf8() + '\t' +
                      path.toUtf8() + '\n';
    FileWrites::appendDurably(lostLogPath(), line);
}
