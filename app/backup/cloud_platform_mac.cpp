// Cloud-sync clients on macOS: their folders under the home folder, and running applications
// by bundle identifier as the launch services list them.
#include <QDir>
#include <QProcess>
#include <QRegularExpression>

#include "cloud_platform.h"

namespace CloudPlatform {

QList<Candidate> candidates(const QString& home) {
    QList<Candidate> list{{"iCloud Drive", "Library/Mobile Documents/com~apple~CloudDocs"}};
    const QStringList storage =
        QDir(home + QStringLiteral("/Library/CloudStorage")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : storage) {
        QString rel = QStringLiteral("Library/CloudStorage/") + entry;
        if (entry.startsWith(QLatin1String("Dropbox"))) list.append({"Dropbox", rel});
        if (entry.startsWith(QLatin1String("GoogleDrive")))
            list.append({"Google Drive", rel + QStringLiteral("/My Drive")});
        if (entry.startsWith(QLatin1String("OneDrive"))) list.append({"OneDrive", rel});
    }
    list.append(
        {{"Dropbox", "Dropbox"}, {"Google Drive", "Google Drive/My Drive"}, {"Box", "Box"}, {"Box", "Box Sync"}});
    return list;
}

QStringList clientNames(const QString& service) {
    if (service == QLatin1String("Dropbox")) return {"com.getdropbox.dropbox"};
    if (service == QLatin1String("Google Drive")) return {"com.google.drivefs", "com.google.GoogleDrive"};
    if (service == QLatin1String("OneDrive")) return {"com.microsoft.OneDrive", "com.microsoft.OneDrive-mac"};
    if (service == QLatin1String("Box")) return {"com.box.Box-Sync"};
    return {};
}

bool anyRunning(const QStringList& bundleIds) {
    QProcess list;
    list.start(QStringLiteral("/usr/bin/lsappinfo"), {QStringLiteral("list")});
    if (!list.waitForFinished(5000)) return true;  // cannot tell: say nothing rather than warn wrongly
    const QString out = QString::fromUtf8(list.readAllStandardOutput());
    static const QRegularExpression bundle(QStringLiteral("bundleID=\"([^\"]+)\""));
    for (auto it = bundle.globalMatch(out); it.hasNext();)
        if (bundleIds.contains(it.next().captured(1))) return true;
    return false;
}

bool anyInstalled(const QStringList& bundleIds) {
    QProcess find;
    find.start(QStringLiteral("/usr/bin/mdfind"),
               {QStringLiteral("kMDItemCFBundleIdentifier == '%1'")
                    .arg(bundleIds.join(QLatin1String("' || kMDItemCFBundleIdentifier == '")))});
    return !find.waitForFinished(5000) || !find.readAllStandardOutput().trimmed().isEmpty();
}

// iCloud's per-file upload state needs the Foundation file attributes, which this C++ build
// does not reach yet; until it does, iCloud folders get no upload warning.
std::optional<QString> uploadWarning(const QString&, const QString&) { return std::nullopt; }

bool uploadsJudgedFromFiles(const QString& service) { return service == QLatin1String("iCloud Drive"); }

QString systemName() { return QStringLiteral("macOS"); }

QString serviceNames() { return QStringLiteral("Dropbox, OneDrive, Google Drive, iCloud or Box"); }

}  // namespace CloudPlatform
