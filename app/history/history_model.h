// The History tab's model: documents with a history on the selected drive, their versions
// newest first, a version's text or its comparison with the document now, and restoring it.
// Every read, comparison and restore runs off the main thread, one at a time and in order (a
// read never sees half a restore); a result that a newer request has overtaken is dropped.
#pragma once
#include <QList>
#include <QObject>
#include <optional>

#include "background_queue.h"
#include "drive_selection.h"
#include "history_lists.h"

class HistoryModel : public QObject {
    Q_OBJECT
public:
    static const QString kNoDriveStatus;
    static const QString kNoHistoryStatus;
    static const QString kTooLargeStatus;

    explicit HistoryModel(DriveSelection* selection, QObject* parent = nullptr);

    DriveSelection* driveSelection() const { return selection_; }
    const QList<QmVolume>& volumes() const { return selection_->volumes(); }
    const std::optional<QString>& root() const { return selection_->path(); }
    const QStringList& documents() const { return state_.documents; }
    const std::optional<QString>& document() const { return state_.document; }
    const QList<DocVersion>& versions() const { return state_.versions; }
    const std::optional<int32_t>& selected() const { return state_.selected; }
    const QString& text() const { return state_.text; }
    const QList<DiffLine>& diffLines() const { return state_.diffLines; }
    bool showingDiff() const { return state_.showingDiff; }
    // The documents, versions and comparison lines as item models for the views.
    DocumentList* documentList() { return &documentRows_; }
    VersionList* versionList() { return &versionRows_; }
    DiffLineList* diffLineList() { return &diffRows_; }
    const QString& status() const { return state_.status; }
    // What the last restore put back, until the next choice; empty otherwise.
    const QString& notice() const { return state_.notice; }
    // The selected version, when there is one.
    std::optional<DocVersion> selectedVersion() const;
    bool busy() const { return pending_ > 0; }
    // A version is being put back on the drive.
    bool restoring() const { return restoring_ > 0; }

    // Scans the mounted volumes again; does nothing while the selection is pinned.
    void rescan();
    void loadDocuments();
    void selectDocument(const QString& doc);
    // Shows another version in the current mode.
    void selectVersion(int32_t id);
    void show(bool asDiff);
    void revert();

    // Everything the tab shows, filled in by the steps below in the background.
    struct State {
        QStringList documents;
        std::optional<QString> document;
        QList<DocVersion> versions;
        std::optional<int32_t> selected;
        QString text;
        QList<DiffLine> diffLines;
        bool showingDiff = false;
        QString status = kNoDriveStatus;
        // The status speaks of what was shown (a comparison, or why it could not be read), so
        // showing something else must replace it.
        bool statusAboutShown = false;
        QString notice;
        bool driveGone = false;  // a step failed because the drive's folder is no longer a drive
    };

signals:
    void changed();
    // A background step's result has been applied.
    void settled();

private:
    using Step = State (*)(const QString& root, State state);
    void run(Step step, bool restore = false);
    void apply(State state, int generation);
    void updateLists();

    DriveSelection* selection_;
    State state_;
    DocumentList documentRows_;
    VersionList versionRows_;
    DiffLineList diffRows_;
    std::optional<QString> listedRoot_;    // the drive whose documents are listed
    std::optional<QString> versionsOf_;    // the document whose versions are listed
    int generation_ = 0;
    int pending_ = 0;
    int restoring_ = 0;
    BackgroundQueue background_;  // one thread, so steps run in order; last: stopped first
};
