// Reading the account service's answers: top-level fields of a JSON object.
#pragma once
#include <QByteArray>
#include <QStringList>
#include <optional>

namespace JSON {
// The text value of a top-level key; none when the text is not an object or the value is not text.
std::optional<QString> field(const QByteArray& json, const QString& key);
// The texts of a top-level array; values that are not text are skipped.
QStringList stringArray(const QByteArray& json, const QString& key);
}  // namespace JSON
