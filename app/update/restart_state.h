// What an update's restart carries from the copy that runs to the one that replaces it: where the
// window stood, its size and the tab it showed, the arguments the program was started with, and the file
// the new copy creates once its window has been painted, which tells the old copy it may go.
#pragma once
#include <QPoint>
#include <QSize>
#include <QString>
#include <QStringList>
#include <optional>

namespace RestartState {

// The new copy's environment variables.
inline constexpr char kPlaceVariable[] = "QM_RESTORE_WINDOW";
inline constexpr char kStartedVariable[] = "QM_UPDATE_STARTED";

struct Place {
    int tab = 0;
    std::optional<QPoint> position;  // the window's top-left corner, frame included
    std::optional<QSize> size;       // its inside
    bool operator==(const Place&) const = default;
};

// "tab=2;x=120;y=-40;w=640;h=600", where the position and the size may each be left out. decode
// takes the keys in any order, each once, and nothing else; none when the text is anything but
// that.
QString encode(const Place& place);
std::optional<Place> decode(const QString& text);

// What the new copy gets after "--updated VERSION": this copy's own arguments without the
// program and without the "--updated VERSION" of an earlier restart.
QStringList carriedArguments(const QStringList& withProgram);

// In the new copy: what the old one left in the environment, taken out of it so that nothing
// started later inherits it.
std::optional<Place> takePlace();
std::optional<QString> takeStartedFlag();
// Creates the flag file; false when it could not.
bool reportStarted(const QString& flag);

}  // namespace RestartState
