#include "resources.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

std::optional<QString> Resources::folder() {
    QDir exe(QCoreApplication::applicationDirPath());
    for (const QString& candidate : {exe.filePath(QStringLiteral("resources")),
                                     exe.filePath(QStringLiteral("../share/quillmate-flasher"))})
        if (QFileInfo(candidate).isDir()) return QDir::cleanPath(candidate);
    return std::nullopt;
}
