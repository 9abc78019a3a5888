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

const char kIdentityLead[] = "# drive: ";

// The identity line sits right below the header; only the first lines are looked at.
QString identityFrom(const QByteArray& text) {
    for (const QByteArray& line : text.left(4096).split('\n'))
        if (line.startsWith(kIdentityLead)) return QString::fromUtf8(line.mid(sizeof kIdentityLead - 1).trimmed());
    return {};
}

}  // namespace

// A row may only name a file inside the folder: a manifest is a file anybody could have edited,
// and its paths are later read and written.
bool BackupManifest::canRecord(const QByteArray& path) {
    if (path.isEmpty() || path.contains('\0') || path.contains('\n')) return false;
    const QList<QByteArray> parts = path.split('/');
    return std::none_of(parts.begin(), parts.end(),
                        [](const QByteArray& p) { return p.isEmpty() || p == "." || p == ".."; });
}

BackupManifest::BackupManifest(const QString& folder) : folder_(folder) {
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly)) return;
    QByteArray text = file.readAll();
    rows_ = parse(text);
    identity_ = identityFrom(text);
}

QString BackupManifest::identityIn(const QString& folder) {
    QFile file(folder + QLatin1Char('/') + QLatin1String(kFileName));
    if (!file.open(QIODevice::ReadOnly)) return {};
    return identityFrom(file.read(4096));
}

QString BackupManifest::path() const { return folder_ + QLatin1Char('/') + QLatin1String(kFileName); }
QString BackupManifest::lostLogPath() const { return path() + QLatin1String("-lost.txt"); }

std::map<QByteArray, BackupEntry> BackupManifest::parse(const QByteArray& text) {
    std::map<QByteArray, BackupEntry> rows;
    const QList<QByteArray> lines = text.split('\n');
    // A manifest saved on a CRLF system ends every line, the header too, in a carriage return;
    // otherwise a carriage return at the end of a row belongs to the file's name.
    bool crlf = !lines.isEmpty() && lines.first().endsWith('\r');
    for (QByteArray line : lines) {
        if (crlf && line.endsWith('\r')) line.chop(1);
        if (line.isEmpty() || line.startsWith('#')) continue;
        const QList<QByteArray> fields = line.split('\t');
        if (fields.size() < 5) continue;
        BackupEntry e;
        e.sha256 = QString::fromUtf8(fields[0]);
        e.size = number(fields[1]);
        e.modified = number(fields[2]);
        e.verified = number(fields[3]);
        e.path = fields.mid(4).join('\t');
        if (!canRecord(e.path)) continue;
        rows[e.path] = std::move(e);
    }
    return rows;
}

QByteArray BackupManifest::serialize(const std::map<QByteArray, BackupEntry>& rows, const QString& identity) {
    QByteArray out(kHeader);
    if (!identity.isEmpty()) out += kIdentityLead + identity.toUtf8() + '\n';
    for (const auto& [path, e] : rows) {
        out += e.sha256.toUtf8() + '\t' + QByteArray::number(e.size) + '\t' + QByteArray::number(e.modified) + '\t' +
               QByteArray::number(e.verified) + '\t' + path + '\n';
    }
    return out;
}

bool BackupManifest::save() const { return FileWrites::replaceDurably(path(), serialize(rows_, identity_)); }

QList<BackupEntry> BackupManifest::stalest(int n) const {
    QList<BackupEntry> all;
    all.reserve(static_cast<qsizetype>(rows_.size()));
    for (const auto& [path, e] : rows_) all.append(e);
    std::stable_sort(all.begin(), all.end(),
                     [](const BackupEntry& a, const BackupEntry& b) { return a.verified < b.verified; });
    return all.mid(0, std::clamp<qsizetype>(n, 0, all.size()));
}

void BackupManifest::recordLost(const QByteArray& path) const {
    QByteArray line =
        QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm")).toUtf8() + '\t' + path + '\n';
    FileWrites::appendDurably(lostLogPath(), line);
}
