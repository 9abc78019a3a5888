#include "drive.h"

#include <limits>
#include <vector>

std::unique_ptr<Drive> Drive::open(const QString& root, QmError* error) {
    int code = 0;
    qm_drive* h = qm_open(root.toUtf8().constData(), &code);
    if (!h) {
        if (error) *error = qmErrorOrIo(code);
        return nullptr;
    }
    if (error) *error = QmError::ok;
    return std::unique_ptr<Drive>(new Drive(h));
}

Drive::Drive(qm_drive* handle) : handle_(handle) {
    qm_summary_get(handle_, &summary_);
    if (summary_.n_days == 0) return;
    std::vector<qm_day> days(summary_.n_days);
    int n = qm_days_get(handle_, days.data(), int(days.size()));
    days_.reserve(n);
    for (int i = 0; i < n; ++i) days_.append(DayRow{days[i].day, days[i].words, days[i].secs});
}

Drive::~Drive() { qm_close(handle_); }

bool Drive::is(const QString& path) { return qm_is_drive(path.toUtf8().constData()) != 0; }

QmError Drive::provision(const QString& path, bool force) {
    return qmErrorOrIo(qm_provision(path.toUtf8().constData(), force ? 1 : 0));
}

std::optional<QString> Drive::exportJSON() const {
    int n = qm_export_json(handle_, nullptr, 0);
    if (n < 1) return std::nullopt;
    QByteArray buf(n + 1, '\0');
    qm_export_json(handle_, buf.data(), n + 1);
    return QString::fromUtf8(buf.constData(), n);
}

std::optional<QString> Drive::signUpload(const QString& timestamp, const QByteArray& body) const {
    if (body.size() > std::numeric_limits<int>::max()) return std::nullopt;
    char out[65];
    if (qm_sign_upload(handle_, timestamp.toUtf8().constData(), reinterpret_cast<const uint8_t*>(body.constData()),
                       int(body.size()), out) != 0)
        return std::nullopt;
    return QString::fromLatin1(out);
}

QString Drive::driveIdHex() const {
    char out[33];
    qm_drive_id_hex(handle_, out);
    return QString::fromLatin1(out);
}

QString Drive::uploadKeyHex() const {
    char out[65];
    qm_upload_key_hex(handle_, out);
    return QString::fromLatin1(out);
}
