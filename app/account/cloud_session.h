// The account service's requests, made one after another on the calling thread, which waits for
// each answer. Lives and dies on one worker thread: CloudClient runs it off the main thread.
#pragma once
#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <atomic>
#include <memory>
#include <optional>

class Drive;
class QNetworkAccessManager;

class CloudSession {
public:
    static const QString kDefaultBaseURL;

    // QM_SERVER when set (even to nothing), else the default; slashes at either end removed.
    static QString baseURL();

    struct Answer {
        bool ok = false;  // a status from 200 to 299
        int status = 0;   // 0: no exchange happened (no connection, invalid URL, timeout)
        QByteArray body;
    };
    struct Registration {
        bool ok = false;
        int status = 0;
        QString message;
    };
    struct Upload {
        bool ok = false;
        QString message;
    };
    using Headers = QList<QPair<QByteArray, QByteArray>>;

    // The stopping flag, when given, cuts a waiting request short (the owner is going away).
    CloudSession(std::optional<QString> token, QString baseURL = CloudSession::baseURL(),
                 std::shared_ptr<const std::atomic_bool> stopping = {});
    ~CloudSession();
    CloudSession(const CloudSession&) = delete;
    CloudSession& operator=(const CloudSession&) = delete;

    const std::optional<QString>& token() const { return token_; }
    const QString& base() const { return base_; }

    Answer request(const QByteArray& method, const QString& path, const std::optional<QByteArray>& body = {},
                   const Headers& headers = {});

    // None on success (the token is then stored), else the text to show.
    std::optional<QString> signIn(const QString& email, const QString& password);
    // Whether the stored sign-in is still accepted. Sends nothing without a token; a 401 forgets
    // the token here and on disk (this address's only). The answer to the check, when one was
    // made, lands in *answer.
    bool signedIn(Answer* answer = nullptr);
    // Asks the service to revoke the token held, then forgets this address's sign-in on disk
    // whatever the service answered, or when it could not be reached. False when the disk refused.
    bool signOut();
    Registration registerDrive(const QString& id, const QString& uploadKey, const QString& label);
    // Sends the drive's signed statistics export.
    Upload upload(const Drive& drive);

    // What to show for a failed answer: its "message", or a text of our own when it has none.
    QString failureText(const Answer& answer) const;

private:
    QNetworkAccessManager& network();

    std::optional<QString> token_;
    QString base_;
    std::shared_ptr<const std::atomic_bool> stopping_;
    std::unique_ptr<QNetworkAccessManager> network_;
};
