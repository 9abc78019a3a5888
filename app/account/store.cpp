#include "store.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <sys/stat.h>

#include "file_writes.h"

QString Store::tokenPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Quillmate/token.txt");
}

std::optional<QString> Store::token() {
    QFile file(tokenPath());
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    QString text = QString::fromUtf8(file.readAll()).trimmed();
    if (text.isEmpty()) return std::nullopt;
    return text;
}

bool Store::setToken(const std::optional<QString>& token) {
    QString path = tokenPath();
    if (!token) return !QFile::exists(path) || QFile::remove(path);

    QString folder = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(folder)) return false;
    // Owner-only from its first byte: the file is made with that mode before the token goes in.
    return FileWrites::replaceDurably(path, token->toUtf8(), S_IRUSR | S_IWUSR);
}
