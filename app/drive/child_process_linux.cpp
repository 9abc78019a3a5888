#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QStandardPaths>
#include <algorithm>
#include <cerrno>
#include <vector>

#include "child_process.h"

extern char** environ;

namespace {

pid_t spawn(const char* const argv[], char* const envp[], const posix_spawn_file_actions_t& actions, short flags) {
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, flags);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, &attr, const_cast<char* const*>(argv), envp) != 0) pid = -1;
    posix_spawnattr_destroy(&attr);
    return pid;
}

}  // namespace

pid_t ChildProcess::spawnReadingOutput(const char* const argv[], int* readEnd, bool quiet) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (quiet) {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    pid_t pid = spawn(argv, environ, actions, 0);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (pid < 0) close(fds[0]);
    *readEnd = fds[0];
    return pid;
}

pid_t ChildProcess::spawnDetached(char* const argv[], char* const envp[]) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t pid = spawn(argv, envp, actions, POSIX_SPAWN_SETSID);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int ChildProcess::exitStatus(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// posix_spawn rather than QProcess: no fork of this multi-threaded process, and no event loop
// needed on the worker thread.
ChildProcess::Output ChildProcess::run(const QString& program, const QStringList& args, int timeoutMs) {
    Output r;
    if (program.isEmpty()) return r;
    QList<QByteArray> encoded{QFile::encodeName(program)};
    for (const QString& a : args) encoded << a.toLocal8Bit();
    std::vector<const char*> argv;
    for (const QByteArray& a : encoded) argv.push_back(a.constData());
    argv.push_back(nullptr);
    int out = -1;
    pid_t pid = spawnReadingOutput(argv.data(), &out, true);
    if (pid < 0) return r;
    QDeadlineTimer deadline(timeoutMs);
    bool timedOut = false;
    char buf[65536];
    for (;;) {
        pollfd p{out, POLLIN, 0};
        int ready = poll(&p, 1, int(std::max<qint64>(0, deadline.remainingTime())));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            timedOut = true;
            break;
        }
        ssize_t n = read(out, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        r.out.append(buf, qsizetype(n));
    }
    close(out);
    if (timedOut) kill(pid, SIGKILL);
    int status = exitStatus(pid);
    r.ok = !timedOut && status == 0;
    return r;
}

QString ChildProcess::findTool(const QString& name) {
    for (const char* dir : {"/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/"}) {
        const QString p = QLatin1String(dir) + name;
        if (QFileInfo(p).isExecutable()) return p;
    }
    return QStandardPaths::findExecutable(name);
}
