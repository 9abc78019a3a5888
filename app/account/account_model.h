// The Account tab's model: the form's fields, the sign-in state line, and signing in and out.
// Fields change on the main thread only and each change is announced by changed().
#pragma once
#include <QObject>
#include <QString>
#include <QStringList>

#include "cloud_client.h"

class AccountModel : public QObject {
    Q_OBJECT
public:
    static const QString kSignedOutStatus;

    // Starts one background check of the stored sign-in.
    explicit AccountModel(QObject* parent = nullptr);

    const QString& email() const { return email_; }
    const QString& password() const { return password_; }
    const QString& accountStatus() const { return accountStatus_; }
    // A sign-in is kept for the service in use.
    bool signedIn() const { return signedIn_; }
    // A sign-in or a sign-out is under way.
    bool busy() const { return signingIn_ || signingOut_; }
    // Some request (the start-up check, a sign-in, a sign-out) has not landed yet.
    bool working() const { return pending_ > 0; }
    bool canSignIn() const { return !busy() && !email_.isEmpty() && !password_.isEmpty(); }

    void setEmail(const QString& email);
    void setPassword(const QString& password);
    void signIn();
    void signOut();

signals:
    void changed();
    // A sign-in, sign-out or the start-up check has landed.
    void settled();

private:
    // Where the sign-ins stand, as a worker found it.
    struct Standing {
        enum class Check { none, accepted, rejected, unreachable } check = Check::none;
        QString email;
        QString base;
        QStringList others;  // other addresses with a sign-in kept
    };
    static Standing standing(CloudSession& session, bool check);
    void show(const Standing& standing);

    template <typename Work, typename Deliver>
    void run(Work work, Deliver deliver);

    QString email_;
    QString password_;
    QString accountStatus_ = kSignedOutStatus;
    bool signedIn_ = false;
    bool signingIn_ = false;
    bool signingOut_ = false;
    int pending_ = 0;
    CloudClient client_;  // last: stopped first
};
