// What cloud detection needs from the platform, one file per platform.
#pragma once
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

namespace CloudPlatform {

struct Candidate {
    QString name;
    QString relativePath;  // under the home folder
};

// Where each service keeps its folder, in the order they are listed.
QList<Candidate> candidates(const QString& home);
// The names by which the service's client shows itself among running programs; empty when
// the service has none (it then counts as running).
QStringList clientNames(const QString& service);
// Whether any running program has one of these names.
bool anyRunning(const QStringList& names);
// Whether a program of one of these names is installed.
bool anyInstalled(const QStringList& names);
// The platform's own upload check for a folder; none where the platform has no such service.
std::optional<QString> uploadWarning(const QString& target, const QString& home);
// Whether the service's uploads are judged by uploadWarning() from the files, not by its client.
bool uploadsJudgedFromFiles(const QString& service);

}  // namespace CloudPlatform

namespace CloudPlatform {
// The system's name as the notes say it: "Linux", "macOS".
QString systemName();
// The services looked for, as a sentence lists them: "Dropbox, OneDrive ... or Syncthing".
QString serviceNames();
}  // namespace CloudPlatform
