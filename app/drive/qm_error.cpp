#include "qm_error.h"

#include "qm_core.h"

std::optional<QmError> qmErrorFromCode(int code) {
    if (code < -9 || code > 0) return std::nullopt;
    return QmError(code);
}

QmError qmErrorOrIo(int code) { return qmErrorFromCode(code).value_or(QmError::io); }

QString qmErrorMessage(QmError e) { return QString::fromUtf8(qm_strerror(int(e))); }
