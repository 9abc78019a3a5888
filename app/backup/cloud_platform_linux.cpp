// Cloud-sync clients on Linux: their folders under the home folder and their processes.
#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include "cloud_platform.h"

namespace CloudPlatform {

QList<Candidate> candidates(const QString&) {
    return {{"Dropbox", "Dropbox"},     {"OneDrive", "OneDrive"}, {"Google Drive", "Google Drive/My Drive"},
            {"Google Drive", "GoogleDrive"}, {"Box", "Box"},   {"Box", "Box Sync"},
            {"Nextcloud", "Nextcloud"}, {"Syncthing", "Sync"}};
}

QStringList clientNames(const QString& service) {
    if (service == QLatin1String("Dropbox")) return {"dropbox"};
    if (service == QLatin1String("OneDrive")) return {"onedrive"};
    if (service == QLatin1String("Google Drive")) return {"insync", "google-drive-ocamlfuse"};
    if (service == QLatin1String("Nextcloud")) return {"nextcloud"};
    if (service == QLatin1String("Syncthing")) return {"syncthing"};
    return {};  // Box has no client on Linux
}

namespace {
// A process's names: its short name (cut to 15 bytes by the kernel) and its program's file name.
QStringList namesOf(const QString& pidFolder) {
    QStringList names;
    QFile comm(pidFolder + QStringLiteral("/comm"));
    if (comm.open(QIODevice::ReadOnly)) names << QString::fromUtf8(comm.readAll()).trimmed();
    QFile cmdline(pidFolder + QStringLiteral("/cmdline"));
    if (cmdline.open(QIODevice::ReadOnly)) {
        QByteArray argv0 = cmdline.read(4096).split('\0').value(0);
        names << QString::fromUtf8(argv0.mid(argv0.lastIndexOf('/') + 1));
    }
    return names;
}
}  // namespace

bool anyRunning(const QStringList& wanted) {
    const QStringList pids = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& pid : pids) {
        if (pid.isEmpty() || !pid.front().isDigit()) continue;
        for (const QString& name : namesOf(QStringLiteral("/proc/") + pid))
            if (wanted.contains(name, Qt::CaseInsensitive)) return true;
    }
    return false;
}

bool anyInstalled(const QStringList& names) {
    for (const QString& name : names)
        if (!QStandardPaths::findExecutable(name).isEmpty()) return true;
    return false;
}

std::optional<QString> uploadWarning(const QString&, const QString&) { return std::nullopt; }  // no such service here

bool uploadsJudgedFromFiles(const QString&) { return false; }

QString systemName() { return QStringLiteral("Linux"); }

QString serviceNames() { return QStringLiteral("Dropbox, OneDrive, Google Drive, Nextcloud or Syncthing"); }

}  // namespace CloudPlatform
