#include "app_object.h"

#include <QDir>
#include <QFileInfo>

#include "dispatch.h"
#include "running_work.h"

namespace {

QString publish_with(CloudSession& session, const QmVolume& volume) {
    if (!session.signedIn()) return QStringLiteral("Sign in on the Account tab first.");
    QmError error = QmError::ok;
    std::unique_ptr<Drive> drive = Drive::open(volume.path, &error);
    if (!drive) return qmErrorMessage(error);
    CloudSession::Registration registration =
        session.registerDrive(drive->driveIdHex(), drive->uploadKeyHex(), volume.name);
    if (registration.status == 409)
        return QStringLiteral(
            "That drive belongs to another account. To publish it, "
            "sign in with that account on the Account tab.");
    if (!registration.ok) return registration.message;
    return session.upload(*drive).message;
}

}  // namespace

StatsModel::Publisher publishThrough(CloudClient& cloud) {
    return [&cloud](const QmVolume& volume, std::function<void(QString)> done) {
        cloud.run([volume](CloudSession& session) { return publish_with(session, volume); }, std::move(done));
    };
}

QuillmateFlasherApp::QuillmateFlasherApp() {
    RunningWork::keepUpdatesOffWrites(flash, settings);
    // A stick's writing is backed up before an erase into the Backup tab's folder; one chosen then
    // becomes that folder.
    flash.keeper().setDestination([] { return BackupSettings::destination(); },
                                  [this](const QString& folder) { backup.choose(folder); });
}

void QuillmateFlasherApp::start(const QStringList& args, Start how, const QString& pinnedName) {
    if (how == Start::Window) {
        backup.start();
    } else {
        backup.detectServices();
        drives.setReadOnly(true);
    }
    std::optional<QString> drive = valueAfter(args, QStringLiteral("--drive"));
    if (!drive) {
        drives.rescan();
        return;
    }
    QString name = pinnedName.isEmpty() ? QFileInfo(QDir::cleanPath(*drive)).fileName() : pinnedName;
    drives.pin(*drive, name.isEmpty() ? *drive : name);
}

bool QuillmateFlasherApp::busy() const {
    return flash.scanning() || drives.scanning() || stats.busy() || history.busy() || backup.busy() ||
           backup.detecting() || account.working() || settings.working();
}
