// The sign-ins kept on disk, one per address of the account service, readable by their owner
// only. The default service's token is token.txt, as it always was; other addresses' tokens,
// and the account each sign-in belongs to, are in sign-ins.json beside it. Safe to call from
// the clients' threads at once.
#pragma once
#include <QList>
#include <QString>
#include <optional>

namespace Store {

struct SignIn {
    QString base;  // the service's address
    QString token;
    QString email;  // empty when not known
    bool operator==(const SignIn&) const = default;
};

// <generic data folder>/Quillmate/token.txt: the default service's token.
QString tokenPath();
// <generic data folder>/Quillmate/sign-ins.json
QString signInsPath();
// The file that holds base's token.
QString pathFor(const QString& base);

// The sign-in kept for the service at base; none when there is none.
std::optional<SignIn> signIn(const QString& base);
std::optional<QString> token(const QString& base);
// Replaces base's token and the account it belongs to in one step; none forgets base's sign-in
// and no other. False when the disk refused.
bool setToken(const QString& base, const std::optional<QString>& token, const QString& email = {});
// Notes whose sign-in base's is, when one is kept.
bool setEmail(const QString& base, const QString& email);
// Every sign-in kept, the default service's first.
QList<SignIn> signIns();

}  // namespace Store
