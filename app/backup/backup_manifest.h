// The plain-text list in the backup folder of every copy made and verified: one row per file,
// "sha256 TAB size TAB modified TAB verified TAB path", and a comment line naming the drive the
// folder belongs to. Paths are the bytes the drive's file system holds, so a name that is not
// UTF-8 is recorded as it is; only a line feed cannot be. It is replaced atomically, so a run
// killed at any moment leaves the old list or the new one.
#pragma once
#include <QByteArray>
#include <QList>
#include <QString>
#include <cstdint>
#include <map>

struct BackupEntry {
    QByteArray path;  // relative to the drive's root, "/"-separated
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
    static std::map<QByteArray, BackupEntry> parse(const QByteArray& text);
    static QByteArray serialize(const std::map<QByteArray, BackupEntry>& rows, const QString& identity = {});
    // Whether a row can hold this path (it cannot hold a line feed, nor a part that leaves the folder).
    static bool canRecord(const QByteArray& path);

    // The drive the folder belongs to ("key <id>" or "fs <uuid>"); empty in a folder made before
    // drives were told apart, or for a drive that cannot be identified.
    const QString& identity() const { return identity_; }
    void setIdentity(const QString& identity) { identity_ = identity; }
    // The identity recorded in folder's manifest, read from its first lines only.
    static QString identityIn(const QString& folder);

    std::map<QByteArray, BackupEntry>& rows() { return rows_; }
    const std::map<QByteArray, BackupEntry>& rows() const { return rows_; }

    // Writes the manifest through a flushed temporary file renamed over the old one; false on
    // failure (which a run ignores).
    bool save() const;
    // The n rows verified longest ago, oldest first; ties keep map order.
    QList<BackupEntry> stalest(int n) const;
    // Appends "yyyy-MM-dd HH:mm TAB path" to the lost log beside the manifest.
    void recordLost(const QByteArray& path) const;

    QString path() const;
    QString lostLogPath() const;

private:
    QString folder_;
    QString identity_;
    std::map<QByteArray, BackupEntry> rows_;
};
