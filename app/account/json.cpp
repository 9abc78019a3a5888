#include "json.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {
QJsonObject object(const QByteArray& json) { return QJsonDocument::fromJson(json).object(); }
}  // namespace

std::optional<QString> JSON::field(const QByteArray& json, const QString& key) {
    QJsonValue v = object(json).value(key);
    if (!v.isString()) return std::nullopt;
    return v.toString();
}

QStringList JSON::stringArray(const QByteArray& json, const QString& key) {
    QStringList out;
    for (const QJsonValue& v : object(json).value(key).toArray())
        if (v.isString()) out << v.toString();
    return out;
}
