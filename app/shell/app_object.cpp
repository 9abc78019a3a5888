#include "app_object.h"

#include <QDir>
#include <QFileInfo>

#include "dispatch.h"
#include "running_work.h"

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
