#include "cloud_session.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

#include "drive.h"
#include "json.h"
#include "reply_wait.h"
#include "store.h"

const QString CloudSession::kDefaultBaseURL = QStringLiteral("https://account.quillmate.org");

namespace {

constexpr int kTimeoutMs = 30000;

QString trimSlashes(QString s) {
    qsizetype start = 0, end = s.size();
    while (start < end && s[start] == QLatin1Char('/')) ++start;
    while (end > start && s[end - 1] == QLatin1Char('/')) --end;
    return s.mid(start, end - start);
}

QByteArray jsonBody(const QJsonObject& o) { return QJsonDocument(o).toJson(QJsonDocument::Compact); }

}  // namespace

QString CloudSession::baseURL() {
    if (qEnvironmentVariableIsSet("QM_SERVER")) return trimSlashes(qEnvironmentVariable("QM_SERVER"));
    return trimSlashes(kDefaultBaseURL);
}

CloudSession::CloudSession(std::optional<QString> token, QString baseURL,
                           std::shared_ptr<const std::atomic_bool> stopping)
    : token_(std::move(token)), base_(std::move(baseURL)), stopping_(std::move(stopping)) {}

CloudSession::~CloudSession() = default;

QNetworkAccessManager& CloudSession::network() {
    // Made on first use, so it belongs to the thread the requests are made on.
    if (!network_) network_ = std::make_unique<QNetworkAccessManager>();
    return *network_;
}

CloudSession::Answer CloudSession::request(const QByteArray& method, const QString& path,
                                           const std::optional<QByteArray>& body, const Headers& headers) {
    QUrl url(base_ + path, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) return {};
    if (stopping_ && stopping_->load()) return {};

    QNetworkRequest req(url);
    req.setTransferTimeout(kTimeoutMs);
    if (body) req.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    if (token_) req.setRawHeader("Authorization", "Bearer " + token_->toUtf8());
    for (const auto& [name, value] : headers) req.setRawHeader(name, value);

    QNetworkReply* reply = body ? network().sendCustomRequest(req, method, *body)
                                : network().sendCustomRequest(req, method);
    waitForReply(reply, stopping_);

    Answer answer;
    QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid()) {
        answer.status = status.toInt();
        answer.ok = answer.status >= 200 && answer.status <= 299;
        answer.body = reply->readAll();
    }
    delete reply;
    return answer;
}

QString CloudSession::failureText(const Answer& answer) const {
    if (answer.status == 0 || answer.body.isEmpty()) return QStringLiteral("Could not reach %1.").arg(base_);
    if (std::optional<QString> message = JSON::field(answer.body, QStringLiteral("message"));
        message && !message->isEmpty())
        return *message;
    return QStringLiteral("The account service gave an answer this app does not understand (HTTP %1). Try again "
                          "later.")
        .arg(answer.status);
}

std::optional<QString> CloudSession::signIn(const QString& email, const QString& password) {
    Answer a = request("POST", QStringLiteral("/api/v1/auth/login"),
                       jsonBody({{QStringLiteral("email"), email}, {QStringLiteral("password"), password}}));
    if (!a.ok) return failureText(a);
    std::optional<QString> token = JSON::field(a.body, QStringLiteral("token"));
    if (!token || token->trimmed().isEmpty())
        return QStringLiteral("The account service did not send a sign-in. Try again later.");
    if (!Store::setToken(base_, token->trimmed(), email))
        return QStringLiteral("Signed in, but the sign-in could not be saved in %1.").arg(Store::pathFor(base_));
    token_ = token->trimmed();
    return std::nullopt;
}

bool CloudSession::signedIn(Answer* answer) {
    if (!token_) return false;
    Answer a = request("GET", QStringLiteral("/api/v1/me"));
    if (a.status == 401) {
        token_.reset();
        Store::setToken(base_, std::nullopt);
    }
    if (answer) *answer = a;
    return a.ok;
}

bool CloudSession::signOut() {
    // Revoking stops a copy of the token taken off this computer from working; signing out here
    // never waits on it. The empty body sends Content-Length: 0, without which a server may wait for one.
    if (token_) request("POST", QStringLiteral("/api/v1/auth/logout"), QByteArray());
    token_.reset();
    return Store::setToken(base_, std::nullopt);
}

CloudSession::Registration CloudSession::registerDrive(const QString& id, const QString& uploadKey,
                                                       const QString& label) {
    Answer a = request("POST", QStringLiteral("/api/v1/drives/register"),
                       jsonBody({{QStringLiteral("drive_id"), id},
                                 {QStringLiteral("k_upload"), uploadKey},
                                 {QStringLiteral("label"), label}}));
    return {a.ok, a.status, a.ok ? JSON::field(a.body, QStringLiteral("message")).value_or(QString()) : failureText(a)};
}

CloudSession::Upload CloudSession::upload(const Drive& drive) {
    std::optional<QString> exported = drive.exportJSON();
    if (!exported) return {false, QStringLiteral("nothing to send")};
    QByteArray body = exported->toUtf8();
    QString timestamp = QString::number(QDateTime::currentSecsSinceEpoch());
    std::optional<QString> signature = drive.signUpload(timestamp, body);
    if (!signature) return {false, QStringLiteral("The statistics are too large to send.")};

    Answer a = request("POST", QStringLiteral("/api/v1/drives/%1/stats").arg(drive.driveIdHex()), body,
                       {{"X-QM-Timestamp", timestamp.toLatin1()}, {"X-QM-Signature", signature->toLatin1()}});
    if (!a.ok) return {false, failureText(a)};
    std::optional<QString> profile = JSON::field(a.body, QStringLiteral("profile_url"));
    return {true, profile && !profile->isEmpty() ? QStringLiteral("Published to ") + *profile
                                                 : QStringLiteral("Published.")};
}
