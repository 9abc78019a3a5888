// An opened drive: owns one core handle for its lifetime and closes it exactly once.
#pragma once
#include <QByteArray>
#include <QList>
#include <QString>
#include <memory>
#include <optional>

#include "qm_core.h"
#include "qm_error.h"

struct DayRow {
    uint32_t day = 0;
    uint32_t words = 0;
    uint32_t secs = 0;
    bool operator==(const DayRow&) const = default;
};

class Drive {
public:
    // Opens the drive at root; on failure returns null and stores the error.
    static std::unique_ptr<Drive> open(const QString& root, QmError* error);
    static bool is(const QString& path);
    static QmError provision(const QString& path, bool force);

    ~Drive();
    Drive(const Drive&) = delete;
    Drive& operator=(const Drive&) = delete;

    const qm_summary& summary() const { return summary_; }
    const QList<DayRow>& days() const { return days_; }
    std::optional<QString> exportJSON() const;
    // The upload signature; none when the body is too large for the core's signed length.
    std::optional<QString> signUpload(const QString& timestamp, const QByteArray& body) const;
    QString driveIdHex() const;
    QString uploadKeyHex() const;

private:
    explicit Drive(qm_drive* handle);
    qm_drive* handle_;
    qm_summary summary_{};
    QList<DayRow> days_;
};
