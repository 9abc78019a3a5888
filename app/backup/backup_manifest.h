// The plain-text list in the backup folder of every copy made and verified: one row per file,
// "sha256 TAB size TAB modified TAB verified TAB path". It is replaced atomically, so a run
// killed at any moment leaves the old list or the new one.
#pragma once
#include <QByteArray>
#include <QList>
#include <QString>
#include <cstdint>
#include <map>

struct BackupEntry {
    QString path;  // relative to the drive's root, "/"-separated
    QString sha256;
    int64_t size = 0;
    int64_t modified = 0;  // seconds since 1970, on the drive when copied
    int64_t verified = 0;  // seconds since 1970, when the copy last matched sha256
    bool operator==(const BackupEntry&) const = default;
};

class BackupManifest {
public:
    static constexpr const char* kFileName = ".quillmate-backup";

    // Loads folder + "/.quillmate-backup"; missing or unreadable reads as empty.
    explicit BackupManifest(const QString& folder);

    // Rows of a manifest's text; malformed rows are skipped, later duplicates win.
    static std::map<QString, BackupEntry> parse(const QByteArray& text);
    static QByteArray serialize(const std::map<QString, BackupEntry>& rows);

    std::map<QString, BackupEntry>& rows() { return rows_; }
    const std::map<QString, BackupEntry>& rows() const { return rows_; }

    // Writes the manifest through a flushed temporary file renamed over the old one; false on
    // failure (which a run ignores).
    bool save() const;
    // The n rows verified longest ago, oldest first; ties keep map order.
    QList<BackupEntry> stalest(int n) const;
    // Appends "yyyy-MM-dd HH:mm TAB path" to the lost log beside the manifest.
    void recordLost(const QString& path) const;

    QString path() const;
    QString lostLogPath() const;

private:
    QString folder_;
    std::map<QString, BackupEntry> rows_;
};
