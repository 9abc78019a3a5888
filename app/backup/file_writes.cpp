#include "file_writes.h"

#include <fcntl.h>
#include <unistd.h>

#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <cstdio>

namespace FileWrites {
namespace {

bool writeAll(int fd, const QByteArray& data) {
    const char* p = data.constData();
    qsizetype left = data.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, static_cast<size_t>(left));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        left -= n;
    }
    return true;
}

}  // namespace

bool syncFolder(const QString& folder) {
    int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = ::fsync(fd) == 0;
    ::close(fd);
    return ok;
}

bool replaceDurably(const QString& path, const QByteArray& data) {
    QByteArray target = QFile::encodeName(path);
    QByteArray temp = target + ".tmp";
    int fd = ::open(temp.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = writeAll(fd, data) && ::fsync(fd) == 0;
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
    bool ok = writeAll(fd, data) && ::fsync(fd) == 0;
    return ::close(fd) == 0 && ok;
}

}  // namespace FileWrites
