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
// The platform's own upload check for a folder (iCloud Drive on macOS); none elsewhere.
std::optional<QString> uploadWarning(const QString& target, const QString& home);

}  // namespace CloudPlatform

namespace CloudPlatform {
// The system's name as the notes say it: "Linux", "macOS".
QString systemName();
}  // namespace CloudPlatform
