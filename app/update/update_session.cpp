#include "update_session.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>
#include <QUrlQuery>

#include "archive_unpack.h"
#include "file_writes.h"
#include "qm_core.h"
#include "reply_wait.h"
#include "update_feed.h"

namespace {

constexpr int kCheckTimeoutMs = 30'000;
constexpr int kDownloadIdleTimeoutMs = 60'000;
constexpr int kDownloadLimitMs = 1'800'000;
constexpr qint64 kReadBuffer = 1 << 20;

QNetworkRequest uncachedRequest(const QUrl& url, int transferTimeoutMs) {
    QNetworkRequest req(url);
    req.setTransferTimeout(transferTimeoutMs);
    req.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    req.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    return req;
}

int httpStatus(QNetworkReply* reply) {
    QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    return status.isValid() ? status.toInt() : 0;
}

}  // namespace

UpdateSession::UpdateSession(UpdateIdentity id, std::shared_ptr<const std::atomic_bool> stopping)
    : id_(std::move(id)), stopping_(std::move(stopping)) {}

UpdateSession::~UpdateSession() = default;

QNetworkAccessManager& UpdateSession::network() {
    if (!network_) network_ = std::make_unique<QNetworkAccessManager>();  // belongs to this thread
    return *network_;
}

UpdateCheck UpdateSession::check() {
    QUrl url(id_.baseURL + QStringLiteral("/api/v1/update/check"));
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("platform"), UpdateIdentity::kPlatform);
    query.addQueryItem(QStringLiteral("channel"), id_.channel);
    query.addQueryItem(QStringLiteral("version"), id_.version);
    url.setQuery(query);
    if (!url.isValid() || url.host().isEmpty()) return UpdateFeed::read(0, {}, id_.version, id_.baseURL);

    QNetworkReply* reply = network().get(uncachedRequest(url, kCheckTimeoutMs));
    QByteArray body;
    // Read as it arrives and stop past the limit: a hostile server cannot make this grow.
    QObject::connect(reply, &QNetworkReply::readyRead, reply, [&] {
        body += reply->read(UpdateFeed::kMaxAnswer + 1 - body.size());
        if (body.size() > UpdateFeed::kMaxAnswer) reply->abort();
    });
    waitForReply(reply, stopping_);
    if (body.size() <= UpdateFeed::kMaxAnswer) body += reply->read(UpdateFeed::kMaxAnswer + 1 - body.size());
    int status = httpStatus(reply);
    delete reply;
    return UpdateFeed::read(status, body, id_.version, id_.baseURL);
}

DownloadOutcome UpdateSession::download(const UpdateInfo& info, const std::function<void(double)>& progress,
                                        const std::function<void()>& verifying) {
    // Whatever the feed said, an older or equal release is never fetched: a replayed old
    // signed release is a downgrade.
    QByteArray theirs = info.version.toUtf8(), ours = id_.version.toUtf8();
    if (qm_version_compare(theirs.constData(), ours.constData()) <= 0) return {nullptr, UpdateTexts::kNonsense};
    // The feed's size bounds the transfer; this bounds the feed, whatever it announces.
    if (uint64_t(info.size) > kMaxUpdateBytes) return {nullptr, UpdateTexts::kTooLarge};
    std::shared_ptr<VerifiedArchive> archive = VerifiedArchive::create(info.filename);
    if (!archive) return {nullptr, UpdateTexts::kTransferFailed};

    QNetworkReply* reply = network().get(uncachedRequest(QUrl(info.url), kDownloadIdleTimeoutMs));
    reply->setReadBufferSize(kReadBuffer);
    qint64 arrived = 0;
    int lastPercent = -1;
    bool tooLong = false, writeFailed = false;
    auto drain = [&] {
        QByteArray chunk = reply->readAll();
        arrived += chunk.size();
        if (arrived > info.size) tooLong = true;
        else if (!FileWrites::writeAll(archive->fd(), chunk.constData(), size_t(chunk.size()))) writeFailed = true;
        if (tooLong || writeFailed) return reply->abort();
        int percent = info.size > 0 ? int(arrived * 100 / info.size) : 100;
        if (progress && percent != lastPercent) progress((lastPercent = percent) / 100.0);
    };
    QObject::connect(reply, &QNetworkReply::readyRead, reply, drain);
    waitForReply(reply, stopping_, kDownloadLimitMs);
    if (!tooLong && !writeFailed && reply->bytesAvailable() > 0) drain();
    bool finished = reply->error() == QNetworkReply::NoError && httpStatus(reply) / 100 == 2;
    delete reply;

    if (tooLong) return {nullptr, UpdateTexts::kWrongSize};
    if (!finished || writeFailed) return {nullptr, UpdateTexts::kTransferFailed};
    if (verifying) verifying();
    if (std::optional<QString> failure = verifyArchive(archive->fd(), info, id_)) return {nullptr, *failure};
    return {std::move(archive), {}};
}
