#include "account_model.h"

#include "json.h"

const QString AccountModel::kSignedOutStatus = QStringLiteral("Not signed in.");

namespace {

QString signedInAs(const QString& email, bool unchecked = false) {
    QString who = email.isEmpty() ? QStringLiteral("Signed in") : QStringLiteral("Signed in as ") + email;
    if (unchecked) return who + QStringLiteral(" (could not reach the service)");
    return email.isEmpty() ? who + QLatin1Char('.') : who;
}

// Sign-ins are kept per address, so one made elsewhere is still there: say so rather than
// leave it looking lost.
QString signedOut(const QString& base, const QStringList& others) {
    if (others.isEmpty()) return AccountModel::kSignedOutStatus;
    return QStringLiteral("Not signed in at %1. (You are signed in at %2; %3 kept.)")
        .arg(base, others.join(QStringLiteral(", ")),
             others.size() == 1 ? QStringLiteral("that sign-in is") : QStringLiteral("those sign-ins are"));
}

}  // namespace

AccountModel::AccountModel(QObject* parent) : QObject(parent) {
    // The sign-in kept shows at once; the check below says whether the service still takes it.
    if (std::optional<Store::SignIn> kept = Store::signIn(CloudSession::baseURL())) {
        signedIn_ = true;
        accountStatus_ = signedInAs(kept->email);
    }
    run([](CloudSession& s) { return standing(s, true); }, [this](const Standing& st) { show(st); });
}

AccountModel::Standing AccountModel::standing(CloudSession& session, bool check) {
    Standing st;
    st.base = session.base();
    for (const Store::SignIn& kept : Store::signIns())
        if (kept.base != st.base) st.others << kept.base;
    std::optional<Store::SignIn> kept = Store::signIn(st.base);
    if (!check || !kept || !session.token()) return st;
    st.email = kept->email;
    CloudSession::Answer answer;
    if (!session.signedIn(&answer)) {
        st.check = answer.status == 401 ? Standing::Check::rejected : Standing::Check::unreachable;
        return st;
    }
    st.check = Standing::Check::accepted;
    if (std::optional<QString> email = JSON::field(answer.body, QStringLiteral("email")); email && !email->isEmpty()) {
        st.email = *email;
        Store::setEmail(st.base, *email);
    }
    return st;
}

void AccountModel::show(const Standing& st) {
    signedIn_ = st.check == Standing::Check::accepted || st.check == Standing::Check::unreachable;
    accountStatus_ = signedIn_ ? signedInAs(st.email, st.check == Standing::Check::unreachable)
                               : signedOut(st.base, st.others);
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
            signedIn_ = true;
            accountStatus_ = signedInAs(email);
        });
}

void AccountModel::signOut() {
    if (signingOut_) return;
    // Telling the service can take up to the request's time limit when it does not answer.
    signingOut_ = true;
    accountStatus_ = QStringLiteral("Signing out…");
    emit changed();
    run(
        [](CloudSession& s) {
            bool forgotten = s.signOut();
            return std::pair(forgotten, standing(s, false));
        },
        [this](const std::pair<bool, Standing>& outcome) {
            signingOut_ = false;
            password_.clear();
            if (outcome.first) return show(outcome.second);
            accountStatus_ = QStringLiteral("The sign-in could not be forgotten. Delete %1 to sign out.")
                                 .arg(Store::pathFor(outcome.second.base));
        });
}
