// Keeps two runs out of the same backup folder, whether they are in this process or in another
// (the open window and a headless run at once): an advisory lock on a file in the folder.
#pragma once
#include <QString>

class BackupLock {
public:
    static constexpr const char* kFileName = ".quillmate-backup.lock";

    // Takes the lock of folder, waiting for another run to finish when wait is true.
    BackupLock(const QString& folder, bool wait);
    ~BackupLock();
    BackupLock(const BackupLock&) = delete;
    BackupLock& operator=(const BackupLock&) = delete;

    // False only when another run holds the folder and we did not wait. A folder whose file
    // system has no locks at all counts as held, rather than stopping every backup.
    bool held() const { return held_; }

private:
    int fd_ = -1;
    bool held_ = false;
};
