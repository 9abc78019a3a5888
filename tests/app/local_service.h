// The programs the application's tests start, in the Qt types the application takes: the account
// service (the server tests' own ServerProcess) and the project's tools.
#pragma once
#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

#include <optional>

#include "../server/server_process.h"

inline std::vector<std::string> stdStrings(const QStringList& list) {
    std::vector<std::string> out;
    for (const QString& s : list) out.push_back(s.toStdString());
    return out;
}

// Runs a program to its end with `input` on its standard input and, when given, its standard output
// in a file; its exit status.
inline int runProgram(const QStringList& args, const QByteArray& input = {}, const QString& output = {}) {
    int in[2];
    if (::pipe2(in, O_CLOEXEC) != 0) return -1;
    int out = output.isEmpty() ? -1 : ::open(QFile::encodeName(output), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    pid_t pid = spawn_process(stdStrings(args), in[0], out);
    ::close(in[0]);
    if (out >= 0) ::close(out);
    if (!input.isEmpty()) (void)!::write(in[1], input.constData(), size_t(input.size()));
    ::close(in[1]);
    return exit_status(pid);
}

// qm-server on a free loopback port, stopped when this goes.
class LocalService {
public:
    // False when it did not start listening.
    bool start(const QString& program, const QStringList& args) {
        server_.emplace(program.toStdString(), stdStrings(args));
        return server_->port() > 0;
    }
    QString base() const { return server_ ? QString::fromStdString(server_->url()) : QString(); }

private:
    std::optional<ServerProcess> server_;
};
