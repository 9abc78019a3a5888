#include "store.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QStandardPaths>
#include <sys/stat.h>

#include "cloud_session.h"
#include "file_writes.h"

namespace {

QMutex lock;  // each model's client asks from a thread of its own

const QString kToken = QStringLiteral("token");
const QString kEmail = QStringLiteral("email");

QString folder() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Quillmate");
}

bool isDefault(const QString& base) { return base == CloudSession::kDefaultBaseURL; }

std::optional<QString> nonEmpty(const QString& text) {
    QString t = text.trimmed();
    return t.isEmpty() ? std::nullopt : std::optional<QString>(t);
}

// Owner-only from its first byte: the file is made with that mode before anything goes in.
bool writeOwnerOnly(const QString& path, const QByteArray& data) {
    return QDir().mkpath(QFileInfo(path).absolutePath()) && FileWrites::replaceDurably(path, data, S_IRUSR | S_IWUSR);
}

std::optional<QString> readTokenFile() {
    QFile file(Store::tokenPath());
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    return nonEmpty(QString::fromUtf8(file.readAll()));
}

bool writeTokenFile(const std::optional<QString>& token) {
    QString path = Store::tokenPath();
    if (!token) return !QFile::exists(path) || QFile::remove(path);
    return writeOwnerOnly(path, token->toUtf8());
}

// Address -> {"token", "email"}; empty when the file is missing or unreadable.
QJsonObject readSignIns() {
    QFile file(Store::signInsPath());
    if (!file.open(QIODevice::ReadOnly)) return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

bool writeSignIns(const QJsonObject& all) {
    return writeOwnerOnly(Store::signInsPath(), QJsonDocument(all).toJson(QJsonDocument::Indented));
}

// A token.txt written before sign-ins were kept per address belongs to the address in use then;
// the one in use now is the best guess. sign-ins.json marks this done: every change writes it.
void adoptOlderToken(const QString& base) {
    if (QFile::exists(Store::signInsPath())) return;
    std::optional<QString> older = readTokenFile();
    if (!older || isDefault(base)) return;
    if (writeSignIns(QJsonObject{{base, QJsonObject{{kToken, *older}}}})) writeTokenFile(std::nullopt);
}

std::optional<Store::SignIn> signInLocked(const QString& base, const QJsonObject& all) {
    QJsonObject entry = all.value(base).toObject();
    std::optional<QString> token = isDefault(base) ? readTokenFile() : nonEmpty(entry.value(kToken).toString());
    if (!token) return std::nullopt;
    return Store::SignIn{base, *token, entry.value(kEmail).toString()};
}

}  // namespace

QString Store::tokenPath() { return folder() + QStringLiteral("/token.txt"); }

QString Store::signInsPath() { return folder() + QStringLiteral("/sign-ins.json"); }

QString Store::pathFor(const QString& base) { return isDefault(base) ? tokenPath() : signInsPath(); }

std::optional<Store::SignIn> Store::signIn(const QString& base) {
    QMutexLocker hold(&lock);
    adoptOlderToken(base);
    return signInLocked(base, readSignIns());
}

std::optional<QString> Store::token(const QString& base) {
    std::optional<SignIn> s = signIn(base);
    return s ? std::optional<QString>(s->token) : std::nullopt;
}

bool Store::setToken(const QString& base, const std::optional<QString>& token, const QString& email) {
    QMutexLocker hold(&lock);
    adoptOlderToken(base);
    QJsonObject all = readSignIns();
    if (token) {
        QJsonObject entry{{kEmail, email}};
        if (!isDefault(base)) entry[kToken] = *token;
        all[base] = entry;
    } else {
        all.remove(base);
    }
    bool kept = writeSignIns(all);
    if (isDefault(base)) kept = writeTokenFile(token) && kept;
    return kept;
}

bool Store::setEmail(const QString& base, const QString& email) {
    QMutexLocker hold(&lock);
    QJsonObject all = readSignIns();
    if (!signInLocked(base, all) || email.isEmpty()) return false;
    QJsonObject entry = all.value(base).toObject();
    if (entry.value(kEmail).toString() == email) return true;
    entry[kEmail] = email;
    all[base] = entry;
    return writeSignIns(all);
}

QList<Store::SignIn> Store::signIns() {
    QMutexLocker hold(&lock);
    QJsonObject all = readSignIns();
    QList<SignIn> found;
    if (std::optional<SignIn> s = signInLocked(CloudSession::kDefaultBaseURL, all)) found << *s;
    for (auto it = all.begin(); it != all.end(); ++it)
        if (!isDefault(it.key()))
            if (std::optional<SignIn> s = signInLocked(it.key(), all)) found << *s;
    return found;
}
