// Installing on Linux: the bundle is a folder ("Quillmate Flasher.app") holding bin/, share/ and
// bundle.json. What stands in for a platform signature check is the signed archive itself plus
// the unpacked bundle naming exactly the signed version and the key this copy trusts.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "archive_unpack.h"
#include "child_process.h"
#include "folder_swap.h"
#include "qm_core.h"
#include "restart_state.h"
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
        if (!path_.isEmpty() && !keep_) removeTree(local(path_));
    }
    const QString& path() const { return path_; }
    // It holds the only copy of something the user needs.
    void keep() { keep_ = true; }

private:
    QString path_;
    bool keep_ = false;
};

// The one bundle folder the archive unpacked to, when there is exactly one.
std::optional<QString> unpackedBundle(const QString& scratch) {
    QFileInfoList entries =
        QDir(scratch).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    if (entries.size() != 1) return std::nullopt;
    const QFileInfo& e = entries.first();
    if (e.isSymLink() || !e.isDir() || !e.fileName().endsWith(QLatin1String(".app"))) return std::nullopt;
    return e.absoluteFilePath();
}

bool executableFile(const QString& path) {
    struct stat st {};
    return ::lstat(local(path).c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & S_IXUSR);
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> p;
    for (std::string& s : strings) p.push_back(s.data());
    p.push_back(nullptr);
    return p;
}

// This process's environment with the restart's own variables set anew.
std::vector<std::string> restartEnvironment(const RestartRequest& restart, const std::string& startedFlag) {
    const std::string place = std::string(RestartState::kPlaceVariable) + "=";
    const std::string started = std::string(RestartState::kStartedVariable) + "=";
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, place.c_str(), place.size()) != 0 &&
            std::strncmp(*e, started.c_str(), started.size()) != 0)
            env.emplace_back(*e);
    if (!restart.windowPlace.isEmpty()) env.push_back(place + restart.windowPlace.toStdString());
    env.push_back(started + startedFlag);
    return env;
}

// Starts the program detached from this process, in a session of its own; 0 when it could not.
pid_t relaunch(const QString& program, const QString& version, const RestartRequest& restart,
               const std::string& startedFlag) {
    std::vector<std::string> args{local(program), "--updated", version.toStdString()};
    for (const QString& a : restart.arguments) args.push_back(local(a));
    std::vector<std::string> env = restartEnvironment(restart, startedFlag);
    std::vector<char*> argv = pointers(args), envp = pointers(env);
    pid_t pid = ChildProcess::spawnDetached(argv.data(), envp.data());
    return pid < 0 ? 0 : pid;
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

enum class Start { Shown, Ended, Silent };

// Watches the new copy until it has painted its window (it creates the flag file then), has
// ended, or the deadline passes. A copy that ended is not reaped here: whoever waits for it may.
Start awaitStart(pid_t pid, const std::string& flag, int deadlineMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point until = Clock::now() + std::chrono::milliseconds(deadlineMs);
    for (;;) {
        if (exists(flag)) return Start::Shown;
        siginfo_t info {};
        const int rc = ::waitid(P_PID, id_t(pid), &info, WEXITED | WNOHANG | WNOWAIT);
        if ((rc == 0 && info.si_pid == pid) || (rc != 0 && errno == ECHILD))
            return exists(flag) ? Start::Shown : Start::Ended;  // it may have shown itself and quit
        if (Clock::now() >= until) return Start::Silent;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

// Ends a new copy that did not start, with whatever it started in its session, and reaps it.
void stop(pid_t pid) {
    ::kill(-pid, SIGTERM);
    for (int i = 0; i < 40; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) != 0) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(-pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

QString cannotReplaceItself(const UpdateIdentity& id, const QString& version) {
    const QString& instead = id.packaged ? UpdateTexts::kUsePackageManager : UpdateTexts::kGetItAsBefore;
    return UpdateTexts::kNotBundle + QLatin1Char(' ') + instead.arg(version);
}

}  // namespace

InstallOutcome installBundle(const UpdateIdentity& id, const UpdateInfo& info, VerifiedArchive& archive,
                             const RestartRequest& restart) {
    if (!id.bundleRoot) return failed(cannotReplaceItself(id, info.version));
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
    const QString program = QDir(*unpacked).filePath(id.executableInBundle);
    if (!manifest || manifest->version != info.version || !executableFile(program))
        return failed(UpdateTexts::kBundleCheckFailed);
    if (manifest->updatePublicKey != id.publicKeyHex) return failed(UpdateTexts::kOtherDeveloper);

    if (std::optional<std::string> error = exchangeFolders(local(*unpacked), local(root)))
        return failed(UpdateTexts::kReplaceFailed.arg(QString::fromStdString(*error)));
    // The old bundle now sits in the scratch folder, where it stays until the new copy has shown
    // its window, and then goes with the folder.
    const std::string flag = local(QDir(scratch.path()).filePath(QStringLiteral("started")));
    const pid_t pid = relaunch(QDir(root).filePath(id.executableInBundle), info.version, restart, flag);
    const Start start = pid > 0 ? awaitStart(pid, flag, restart.startDeadlineMs) : Start::Ended;
    if (start == Start::Shown) return {std::nullopt, std::nullopt, pid};

    std::fprintf(stderr, "update: version %s %s; putting the old copy back\n", qPrintable(info.version),
                 pid == 0 ? "could not be started" : start == Start::Ended ? "ended before showing its window"
                                                                          : "showed no window in time");
    if (pid > 0) stop(pid);
    if (std::optional<std::string> error = exchangeFolders(local(*unpacked), local(root))) {
        scratch.keep();
        return failed(UpdateTexts::kPutBackFailed.arg(QString::fromStdString(*error), *unpacked, root));
    }
    return failed(UpdateTexts::kDidNotStart);
}
