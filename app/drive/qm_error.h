// The application's view of the core's result codes.
#pragma once
#include <QString>
#include <cstdint>
#include <optional>

enum class QmError : int32_t {
    ok = 0,
    badArgument = -1,
    io = -2,
    notADrive = -3,
    noStatistics = -4,
    unreadableStatistics = -5,
    alreadyHasKey = -6,
    randomFailed = -7,
    bufferTooSmall = -8,
    noHistory = -9,
};

// The case for a core code, or nothing when the code is outside -9..0.
std::optional<QmError> qmErrorFromCode(int code);
// The one mapping the application uses: codes outside the table read as a failure to read
// or write the drive.
QmError qmErrorOrIo(int code);
inline int qmErrorIndex(QmError e) { return -int(e); }
QString qmErrorMessage(QmError e);
