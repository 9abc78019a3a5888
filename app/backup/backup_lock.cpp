#include "backup_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QFile>
#include <cerrno>

BackupLock::BackupLock(const QString& folder, bool wait) {
    QByteArray path = QFile::encodeName(folder + QLatin1Char('/') + QLatin1String(kFileName));
    fd_ = ::open(path.constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd_ < 0) {
        held_ = true;
        return;
    }
    int rc;
    do rc = ::flock(fd_, LOCK_EX | (wait ? 0 : LOCK_NB));
    while (rc != 0 && errno == EINTR);
    held_ = rc == 0 || errno != EWOULDBLOCK;
}

BackupLock::~BackupLock() {
    if (fd_ >= 0) ::close(fd_);  // closing releases the lock
}
