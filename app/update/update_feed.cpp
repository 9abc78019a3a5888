#include "update_feed.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include "qm_core.h"

namespace {

bool isHex(const QString& s) {
    for (QChar c : s)
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f')) ||
              (c >= QLatin1Char('A') && c <= QLatin1Char('F'))))
            return false;
    return true;
}

// A version goes into one line of the signed description: no line breaks or other controls.
bool printableLine(const QString& s) {
    if (s.isEmpty() || s.size() > 64) return false;
    for (QChar c : s)
        if (c.unicode() < 0x20 || c.unicode() == 0x7f) return false;
    return true;
}

std::optional<QString> stringField(const QJsonObject& o, const char* key, bool required) {
    QJsonValue v = o.value(QLatin1String(key));
    if (v.isUndefined() || v.isNull()) return required ? std::nullopt : std::optional<QString>(QString());
    if (!v.isString()) return std::nullopt;
    return v.toString();
}

// Sizes arrive as JSON numbers (doubles): only whole, non-negative values that a double holds
// exactly are taken.
std::optional<int64_t> sizeField(const QJsonObject& o) {
    QJsonValue v = o.value(QLatin1String("size"));
    if (!v.isDouble()) return std::nullopt;
    double d = v.toDouble();
    if (!(d >= 0 && d <= 9007199254740992.0) || d != static_cast<double>(static_cast<int64_t>(d))) return std::nullopt;
    return static_cast<int64_t>(d);
}

bool acceptedURL(const QString& url, const QString& baseURL) {
    // A development service without TLS is trusted only at its own address, not at one that
    // merely begins like it ("http://127.0.0.1:8080.example").
    return url.startsWith(QLatin1String("https://")) ||
           (!baseURL.isEmpty() && url.startsWith(baseURL + QLatin1Char('/')));
}

std::optional<UpdateInfo> readInfo(const QJsonObject& o, const QString& version, const QString& baseURL) {
    UpdateInfo info;
    info.version = version;
    std::optional<QString> notes = stringField(o, "notes", false), filename = stringField(o, "filename", false),
                           url = stringField(o, "url", true), sha = stringField(o, "sha256", true),
                           sig = stringField(o, "signature", true);
    std::optional<int64_t> size = sizeField(o);
    QJsonValue mandatory = o.value(QLatin1String("mandatory"));
    if (!notes || !filename || !url || !sha || !sig || !size) return std::nullopt;
    if (!mandatory.isUndefined() && !mandatory.isNull() && !mandatory.isBool()) return std::nullopt;
    info.notes = *notes;
    info.filename = filename->isEmpty() ? QStringLiteral("QuillmateFlasher-%1.zip").arg(version) : *filename;
    info.url = *url;
    info.size = *size;
    info.sha256 = *sha;
    info.signature = *sig;
    info.mandatory = mandatory.toBool(false);
    if (info.sha256.size() != 64 || !isHex(info.sha256) || info.signature.size() != 128 || !isHex(info.signature))
        return std::nullopt;
    if (!acceptedURL(info.url, baseURL) || !UpdateFeed::plainFileName(info.filename)) return std::nullopt;
    return info;
}

}  // namespace

namespace UpdateFeed {

UpdateCheck read(int status, const QByteArray& body, const QString& currentVersion, const QString& baseURL) {
    if (status == 0) return UpdateCheck::failed(UpdateTexts::kUnreachable);
    if (status < 200 || status > 299) return UpdateCheck::failed(UpdateTexts::kHttpError.arg(status));
    UpdateCheck nonsense = UpdateCheck::failed(UpdateTexts::kNonsense);
    if (body.size() > kMaxAnswer) return nonsense;
    QJsonParseError error;
    QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) return nonsense;
    QJsonObject o = doc.object();
    QJsonValue version = o.value(QLatin1String("version"));
    if (!version.isString() || !printableLine(version.toString())) return nonsense;
    QByteArray theirs = version.toString().toUtf8(), ours = currentVersion.toUtf8();
    if (qm_version_compare(theirs.constData(), ours.constData()) <= 0) return UpdateCheck::upToDate();
    std::optional<UpdateInfo> info = readInfo(o, version.toString(), baseURL);
    return info ? UpdateCheck::available(*info) : nonsense;
}

std::optional<QByteArray> hexBytes(const QString& hex, int count) {
    if (count < 0 || hex.size() != 2 * count || !isHex(hex)) return std::nullopt;
    return QByteArray::fromHex(hex.toLatin1());
}

bool plainFileName(const QString& name) {
    if (name.isEmpty() || name.size() > 200 || name.startsWith(QLatin1Char('.'))) return false;
    for (QChar c : name)
        if (c == QLatin1Char('/') || c == QLatin1Char('\\') || c.unicode() < 0x20 || c.unicode() == 0x7f) return false;
    return true;
}

}  // namespace UpdateFeed
