#include "app_object.h"

#include "drive.h"

void QuillmateFlasherApp::pinDrive(const QString& path, const QString& name) {
    QmVolume volume{path, name, Drive::is(path)};
    stats.pin(volume);
    history.pin(volume);
}
