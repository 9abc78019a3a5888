#include "file_writes.h"

#include <fcntl.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <cerrno>

namespace FileWrites {

bool writeAll(int fd, const char* data, size_t len) {
    while (len > 0) {
        ssize_t n = ::write(fd, data, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool syncFolder(const QString& folder) {
    int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

bool replaceDurably(const QString& path, const QByteArray& data, mode_t mode) {
    QByteArray target = QFile::encodeName(path);
    QByteArray temp = target + ".tmp";
    // A leftover of an interrupted write goes first, so the file is always made anew with `mode`.
    ::unlink(temp.constData());
    int fd = ::open(temp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) return false;
    bool ok = writeAll(fd, data.constData(), static_cast<size_t>(data.size())) && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    if (!ok || ::rename(temp.constData(), target.constData()) != 0) {
        ::unlink(temp.constData());
        return false;
    }
    syncFolder(QFileInfo(path).absolutePath());
    return true;
}

bool appendDurably(const QString& path, const QByteArray& data) {
    int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = writeAll(fd, data.constData(), static_cast<size_t>(data.size())) && ::fsync(fd) == 0;
    return ::close(fd) == 0 && ok;
}

}  // namespace FileWrites
