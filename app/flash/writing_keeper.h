// The Install tab's memory of writing kept across a reflash: the sets waiting to go back on
// their stick (this session's and those left from earlier ones), whether that stick is mounted,
// and putting a set back. No widgets: questions and reports are signals, answered by id.
#pragma once
#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>

#include "background_queue.h"
#include "flash_dialogs.h"
#include "keep_writing.h"
#include "stick_mounts.h"
#include "usb_drive.h"

// Writing found on a stick about to be erased.
struct StickWriting {
    QmVolume volume;  // the partition that passes the volume scan's test
    int documents = 0;
};

class WritingKeeper : public QObject {
    Q_OBJECT
public:
    // The backup folder the user chose, and keeping a new choice (the Backup tab's setting).
    using CurrentDestination = std::function<QString()>;
    using ChooseDestination = std::function<void(const QString&)>;
    static constexpr int kLookMs = 2000;

    explicit WritingKeeper(QObject* parent = nullptr);

    void setMounts(std::shared_ptr<StickMounts> mounts) { mounts_ = std::move(mounts); }
    void setDestination(CurrentDestination current, ChooseDestination choose);
    // Where sets are kept; the sets already there are waiting again.
    void setKeptRoot(const QString& root);
    const QString& keptRoot() const { return keptRoot_; }

    // The writing on a stick's mounted partitions, if any. Reads the stick: quick, main thread.
    std::optional<StickWriting> writingOn(const USBDrive& drive) const;
    // The backup folder chosen, or empty; and keeping one chosen just now.
    QString destination() const { return currentDestination_ ? currentDestination_() : QString(); }
    void keepDestination(const QString& folder) {
        if (chooseDestination_) chooseDestination_(folder);
    }

    const QList<KeptSet>& pending() const { return pending_; }
    // The set the tab shows: the first whose stick is mounted, else the first.
    std::optional<KeptSet> shown() const;
    // The shown set's stick is mounted, so it can go back now.
    bool ready() const;
    bool working() const { return work_ != Work::None; }
    // A line for the tab; empty when nothing is kept.
    QString status() const;

    // A set kept just now, before its stick is written.
    void adopt(const KeptSet& set);
    // Its stick was never written after all: the stick still holds everything.
    void discard(const KeptSet& set);
    // The stick named disk has a new image: mounts its data partition and offers to put its
    // writing back, or asks for it to be plugged in again. False when nothing is kept for it.
    bool written(const QString& disk);
    // Looks again for the mounted sticks of the waiting sets.
    void look();
    // Puts the shown set back on its stick ("Put your writing back").
    void putBack();

public slots:
    // The button pressed on the offer with this id (0 puts the writing back).
    void answer(int id, int button);

signals:
    void changed();
    // Show this dialog; an offer (id not 0) is answered through answer().
    void dialogRequested(const FlashDialog& dialog);
    // The offer with this id is void (its stick went away): close it unanswered.
    void dialogClosed(int id);

private:
    enum class Work { None, Mounting, PuttingBack };
    void offer(const KeptSet& set, bool justWritten);
    void putBackOnto(const KeptSet& set, const QString& root);
    void tell(FlashDialog::Kind kind, const QString& title, const QString& text);
    void found(const QHash<QString, QString>& rootsByDisk, bool justWritten);

    std::shared_ptr<StickMounts> mounts_;
    CurrentDestination currentDestination_;
    ChooseDestination chooseDestination_;
    QString keptRoot_;
    QList<KeptSet> pending_;
    QHash<QString, QString> roots_;  // disk -> its data partition's mount, while mounted
    QSet<QString> offerWhenFound_;   // sets (by folder) whose stick was written in this session
    std::optional<KeptSet> offered_;  // the set whose offer is open
    int offerId_ = 0;
    Work work_ = Work::None;
    QString progress_;
    bool looking_ = false;
    QTimer lookTimer_;
    BackgroundQueue background_;  // last: stopped first
};
