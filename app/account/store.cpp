#include "store.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool writeAll(int fd, const QByteArray& data) {
    const char* p = data.constData();
    qsizetype left = data.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, size_t(left));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        left -= n;
    }
    return true;
}

void syncFolder(const QString& folder) {
    int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

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
    // The temporary file is made owner-only before the first byte goes in, so the token is never
    // readable by others, not even for a moment; the rename then swaps it in whole.
    QByteArray temp = QFile::encodeName(path + QStringLiteral(".tmp"));
    ::unlink(temp.constData());
    int fd = ::open(temp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (fd < 0) return false;
    bool ok = ::fchmod(fd, S_IRUSR | S_IWUSR) == 0 && writeAll(fd, token->toUtf8()) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (ok) ok = ::rename(temp.constData(), QFile::encodeName(path).constData()) == 0;
    if (!ok) {
        ::unlink(temp.constData());
        return false;
    }
    syncFolder(folder);
    return true;
}
