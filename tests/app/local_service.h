// Programs the application tests start: the account service on a free loopback port, and the
// project's own tools. posix_spawn rather than fork: forking a multi-threaded test process is
// what ThreadSanitizer cannot follow.
#pragma once
#include <QByteArray>
#include <QHostAddress>
#include <QString>
#include <QStringList>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

// Starts a program with `input` on its standard input and, when given, its standard output in a
// file. Every program gets a time limit of its own, so that it stops even when a test dies first.
inline pid_t spawnWithInput(QStringList args, const QByteArray& input, const QString& output = {}) {
    args.prepend("300");
    args.prepend("/usr/bin/timeout");
    std::vector<QByteArray> bytes;
    for (const QString& a : args) bytes.push_back(a.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& b : bytes) argv.push_back(b.data());
    argv.push_back(nullptr);
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[0], STDIN_FILENO);
    QByteArray out = output.toLocal8Bit();
    if (!output.isEmpty())
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t pid = -1;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[0]);
    if (!input.isEmpty()) (void)!::write(pipeFds[1], input.constData(), size_t(input.size()));
    ::close(pipeFds[1]);
    return pid;
}

inline int exitStatusOf(pid_t pid) {
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs a program to its end; its exit status.
inline int runProgram(const QStringList& args, const QByteArray& input = {}, const QString& output = {}) {
    pid_t pid = spawnWithInput(args, input, output);
    return pid > 0 ? exitStatusOf(pid) : -1;
}

// qm-server on a port that was free a moment ago, stopped when this goes.
class LocalService {
public:
    // False when it did not start listening within ten seconds.
    bool start(const QString& program, QStringList args) {
        QTcpServer probe;
        if (!probe.listen(QHostAddress::LocalHost)) return false;
        port_ = probe.serverPort();
        probe.close();
        base_ = QString("http://127.0.0.1:%1").arg(port_);
        args = QStringList{program} + args + QStringList{"--listen", QString("127.0.0.1:%1").arg(port_), "--base-url", base_};
        pid_ = spawnWithInput(args, {});
        return pid_ > 0 && QTest::qWaitFor(
                               [&] {
                                   QTcpSocket s;
                                   s.connectToHost(QHostAddress::LocalHost, port_);
                                   return s.waitForConnected(200);
                               },
                               10000);
    }
    ~LocalService() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        exitStatusOf(pid_);
    }
    const QString& base() const { return base_; }

private:
    pid_t pid_ = -1;
    quint16 port_ = 0;
    QString base_;
};
