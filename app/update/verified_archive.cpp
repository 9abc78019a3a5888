#include "verified_archive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <cstdlib>

#include "file_hash.h"
#include "qm_core.h"
#include "update_feed.h"

std::unique_ptr<VerifiedArchive> VerifiedArchive::create(const QString& filename) {
    if (!UpdateFeed::plainFileName(filename)) return nullptr;
    QByteArray pattern = QFile::encodeName(QDir::temp().filePath(QStringLiteral("quillmate-download-XXXXXX")));
    if (!::mkdtemp(pattern.data())) return nullptr;  // made 0700
    QString folder = QFile::decodeName(pattern);
    QString path = QDir(folder).filePath(filename);
    int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        ::rmdir(pattern.constData());
        return nullptr;
    }
    return std::unique_ptr<VerifiedArchive>(new VerifiedArchive(fd, folder, path));
}

VerifiedArchive::~VerifiedArchive() {
    ::close(fd_);
    if (keep_) return;
    ::unlink(QFile::encodeName(path_).constData());
    ::rmdir(QFile::encodeName(folder_).constData());
}

std::optional<QString> verifyArchive(int fd, const UpdateInfo& info, const UpdateIdentity& id) {
    struct stat st {};
    if (::fstat(fd, &st) != 0 || st.st_size != info.size) return UpdateTexts::kWrongSize;
    std::optional<QByteArray> key = UpdateFeed::hexBytes(id.publicKeyHex, 32);
    if (!key) return id.publicKeyHex.isEmpty() ? UpdateTexts::kNoKey : UpdateTexts::kMalformedKey;

    std::optional<QString> sha = FileHash::ofDescriptor(fd, 1 << 20);
    std::optional<QByteArray> signature = UpdateFeed::hexBytes(info.signature, 64);
    if (!sha || *sha != info.sha256.toLower() || !signature) return UpdateTexts::kMismatch;
    QByteArray platform = UpdateIdentity::kPlatform.toUtf8(), channel = id.channel.toUtf8(),
               version = info.version.toUtf8(), sha256 = info.sha256.toUtf8();
    QByteArray message(4 * 1024, '\0');
    if (qm_update_message(platform.constData(), channel.constData(), version.constData(), sha256.constData(), info.size,
                          message.data(), static_cast<int>(message.size())) != 0)
        return UpdateTexts::kMismatch;
    bool valid = qm_update_verify(message.constData(), reinterpret_cast<const uint8_t*>(signature->constData()),
                                  reinterpret_cast<const uint8_t*>(key->constData())) == 1;
    return valid ? std::nullopt : std::optional<QString>(UpdateTexts::kMismatch);
}
