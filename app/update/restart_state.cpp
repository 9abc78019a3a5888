#include "restart_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <QFile>
#include <QMap>

namespace RestartState {

namespace {

const QString kUpdated = QStringLiteral("--updated");

std::optional<QString> take(const char* name) {
    if (!qEnvironmentVariableIsSet(name)) return std::nullopt;
    QString value = qEnvironmentVariable(name);
    qunsetenv(name);
    return value;
}

}  // namespace

QString encode(const Place& place) {
    QString text = QStringLiteral("tab=%1").arg(place.tab);
    if (place.position) text += QStringLiteral(";x=%1;y=%2").arg(place.position->x()).arg(place.position->y());
    if (place.size) text += QStringLiteral(";w=%1;h=%2").arg(place.size->width()).arg(place.size->height());
    return text;
}

std::optional<Place> decode(const QString& text) {
    static const QStringList kKeys{QStringLiteral("tab"), QStringLiteral("x"), QStringLiteral("y"),
                                   QStringLiteral("w"), QStringLiteral("h")};
    QMap<QString, int> v;
    for (const QString& item : text.split(QLatin1Char(';'))) {
        const qsizetype eq = item.indexOf(QLatin1Char('='));
        const QString key = item.left(eq);
        bool number = false;
        const int value = item.mid(eq + 1).toInt(&number);
        // Far beyond any screen, and well inside an int whatever is added to it later.
        if (eq < 0 || !number || qAbs(value) > 1'000'000 || !kKeys.contains(key) || v.contains(key))
            return std::nullopt;
        v.insert(key, value);
    }
    auto has = [&](const char* key) { return v.contains(QLatin1String(key)); };
    auto at = [&](const char* key) { return v.value(QLatin1String(key)); };
    if (!has("tab") || at("tab") < 0 || has("x") != has("y") || has("w") != has("h")) return std::nullopt;
    Place place{at("tab"), std::nullopt, std::nullopt};
    if (has("x")) place.position = QPoint(at("x"), at("y"));
    if (has("w")) {
        if (at("w") <= 0 || at("h") <= 0) return std::nullopt;
        place.size = QSize(at("w"), at("h"));
    }
    return place;
}

QStringList carriedArguments(const QStringList& withProgram) {
    QStringList carried;
    for (qsizetype i = 1; i < withProgram.size(); ++i) {
        if (withProgram[i] == kUpdated) ++i;  // and its version
        else carried << withProgram[i];
    }
    return carried;
}

std::optional<Place> takePlace() {
    std::optional<QString> text = take(kPlaceVariable);
    return text ? decode(*text) : std::nullopt;
}

std::optional<QString> takeStartedFlag() {
    std::optional<QString> flag = take(kStartedVariable);
    return flag && !flag->isEmpty() ? flag : std::nullopt;
}

bool reportStarted(const QString& flag) {
    int fd = ::open(QFile::encodeName(flag).constData(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    return fd >= 0 && ::close(fd) == 0;
}

}  // namespace RestartState
