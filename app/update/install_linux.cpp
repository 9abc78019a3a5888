// Installing on Linux: the bundle is a folder ("Quillmate Flasher.app") holding bin/, share/ and
// bundle.json. What stands in for a platform signature check is the signed archive itself plus
// the unpacked bundle naming exactly the signed version and the key this copy trusts.
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cstdio>
#include <cstdlib>

#include "archive_unpack.h"
#include "folder_swap.h"
#include "qm_core.h"
#include "updater.h"

extern char** environ;

namespace {

InstallOutcome failed(QString text) { return {std::move(text), std::nullopt, 0}; }

std::string local(const QString& path) { return QFile::encodeName(path).toStdString(); }

// A folder beside the bundle (so that the final swap is a rename within one file system),
// removed however the install ends.
class Scratch {
public:
    explicit Scratch(const QString& besideFolder) {
        QByteArray pattern = QFile::encodeName(QDir(besideFolder).filePath(QStringLiteral(".QuillmateUpdate-XXXXXX")));
        if (::mkdtemp(pattern.data())) path_ = QFile::decodeName(pattern);
    }
    ~Scratch() {
        if (!path_.isEmpty()) removeTree(local(path_));
    }
    const QString& path() const { return path_; }

private:
    QString path_;
};

// The one bundle folder the archive unpacked to, when there is exactly one.
std::optional<QString> unpackedBundle(const QString& scratch) {
    QFileInfoList entries = QDir(scratch).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    if (entries.size() != 1) return std::nullopt;
    const QFileInfo& e = entries.first();
    if (e.isSymLink() || !e.isDir() || !e.fileName().endsWith(QLatin1String(".app"))) return std::nullopt;
    return e.absoluteFilePath();
}

bool executableFile(const QString& path) {
    struct stat st {};
    return ::lstat(local(path).c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & S_IXUSR);
}

// Starts the program detached from this process, in a session of its own; 0 when it could not.
pid_t relaunch(const QString& program, const QString& version) {
    std::string path = local(program), flag = "--updated", v = version.toStdString();
    char* argv[] = {path.data(), flag.data(), v.data(), nullptr};
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    pid_t pid = 0;
    if (posix_spawn(&pid, path.c_str(), &actions, &attr, argv, environ) != 0) pid = 0;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    return pid;
}

}  // namespace

InstallOutcome installBundle(const UpdateIdentity& id, const UpdateInfo& info, VerifiedArchive& archive) {
    if (!id.bundleRoot) return failed(UpdateTexts::kNotBundle);
    QByteArray theirs = info.version.toUtf8(), ours = id.version.toUtf8();
    if (qm_version_compare(theirs.constData(), ours.constData()) <= 0) return failed(UpdateTexts::kNonsense);
    const QString root = *id.bundleRoot;
    const QString parent = QFileInfo(root).absolutePath();
    if (!folderWritable(local(parent))) {
        archive.keep();
        return {UpdateTexts::kNotWritable.arg(parent), archive.path(), 0};
    }

    Scratch scratch(parent);
    if (scratch.path().isEmpty()) return failed(UpdateTexts::kUnpackFailed);
    if (std::optional<std::string> why = unpackArchive(archive.fd(), local(scratch.path()))) {
        std::fprintf(stderr, "update: unpacking refused: %s\n", why->c_str());
        return failed(UpdateTexts::kUnpackFailed);
    }
    std::optional<QString> unpacked = unpackedBundle(scratch.path());
    if (!unpacked) return failed(UpdateTexts::kUnpackFailed);

    std::optional<BundleManifest> manifest = Bundle::readManifest(*unpacked);
    if (!manifest || manifest->version != info.version || !executableFile(QDir(*unpacked).filePath(id.executableInBundle)))
        return failed(UpdateTexts::kBundleCheckFailed);
    if (manifest->updatePublicKey != id.publicKeyHex) return failed(UpdateTexts::kOtherDeveloper);

    if (std::optional<std::string> error = exchangeFolders(local(*unpacked), local(root)))
        return failed(UpdateTexts::kReplaceFailed.arg(QString::fromStdString(*error)));
    // The old bundle now sits in the scratch folder and goes with it.
    pid_t pid = relaunch(QDir(root).filePath(id.executableInBundle), info.version);
    if (pid == 0) std::fprintf(stderr, "update: installed %s but could not start it\n", qPrintable(info.version));
    return {std::nullopt, std::nullopt, pid};
}
