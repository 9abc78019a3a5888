#include "account_model.h"

#include "json.h"

const QString AccountModel::kSignedOutStatus = QStringLiteral("Not signed in.");

namespace {
QString signedInAs(const QString& email) {
    return email.isEmpty() ? QStringLiteral("Signed in.") : QStringLiteral("Signed in as ") + email;
}
}  // namespace

AccountModel::AccountModel(QObject* parent) : QObject(parent) {
    run(
        [](CloudSession& s) {
            CloudSession::Answer answer;
            if (!s.signedIn(&answer)) return std::optional<QString>();
            return std::optional<QString>(JSON::field(answer.body, QStringLiteral("email")).value_or(QString()));
        },
        [this](std::optional<QString> account) {
            accountStatus_ = account ? signedInAs(*account) : kSignedOutStatus;
        });
}

template <typename Work, typename Deliver>
void AccountModel::run(Work work, Deliver deliver) {
    ++pending_;
    client_.run(std::move(work), [this, deliver = std::move(deliver)](auto result) {
        --pending_;
        deliver(std::move(result));
        emit changed();
        emit settled();
    });
}

void AccountModel::setEmail(const QString& email) {
    if (email == email_) return;
    email_ = email;
    emit changed();
}

void AccountModel::setPassword(const QString& password) {
    if (password == password_) return;
    password_ = password;
    emit changed();
}

void AccountModel::signIn() {
    if (!canSignIn()) return;
    signingIn_ = true;
    emit changed();
    QString email = email_;
    run([email, password = password_](CloudSession& s) { return s.signIn(email, password); },
        [this, email](std::optional<QString> failure) {
            signingIn_ = false;
            if (failure) {
                accountStatus_ = *failure;
                return;
            }
            password_.clear();
            accountStatus_ = signedInAs(email);
        });
}

void AccountModel::signOut() {
    run([](CloudSession&) { return Store::setToken(std::nullopt); },
        [this](bool forgotten) {
            password_.clear();
            accountStatus_ = forgotten ? kSignedOutStatus
                                       : QStringLiteral("The sign-in could not be forgotten. Delete %1 to sign out.")
                                             .arg(Store::tokenPath());
        });
}
