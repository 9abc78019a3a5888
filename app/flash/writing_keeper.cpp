#include "writing_keeper.h"

#include <chrono>
#include <utility>

namespace {

const QString kPutBack = QStringLiteral("Put your writing back");
// Progress is drawn at most this often; a restore of thousands of small files would otherwise
// queue a repaint per file.
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

QString documents(int n) { return n == 1 ? QStringLiteral("1 document") : QStringLiteral("%1 documents").arg(n); }

// "“Deck” (12 documents)": the writing as the user last saw it on the stick.
QString described(const KeptSet& set) {
    QString name =
        set.volumeName.isEmpty() ? QStringLiteral("the stick") : QStringLiteral("“%1”").arg(set.volumeName);
    return name + QStringLiteral(" (") + documents(set.documents) + u')';
}

}  // namespace

WritingKeeper::WritingKeeper(QObject* parent) : QObject(parent), mounts_(StickMounts::platform()) {
    lookTimer_.setInterval(kLookMs);
    connect(&lookTimer_, &QTimer::timeout, this, &WritingKeeper::look);
    setKeptRoot(KeepWriting::defaultRoot());
}

void WritingKeeper::setDestination(CurrentDestination current, ChooseDestination choose) {
    currentDestination_ = std::move(current);
    chooseDestination_ = std::move(choose);
}

void WritingKeeper::setKeptRoot(const QString& root) {
    keptRoot_ = root;
    pending_ = KeepWriting::load(root);
    roots_.clear();
    offerWhenFound_.clear();
    if (pending_.isEmpty())
        lookTimer_.stop();
    else
        lookTimer_.start();
    emit changed();
}

std::optional<StickWriting> WritingKeeper::writingOn(const USBDrive& drive) const {
    QList<QmVolume> found = Volumes::classify(mounts_->mounted(drive.devicePath));
    if (found.isEmpty()) return std::nullopt;
    return StickWriting{found.first(), KeepWriting::documentCount(found.first().path)};
}

std::optional<KeptSet> WritingKeeper::shown() const {
    for (const KeptSet& set : pending_)
        if (roots_.contains(set.disk)) return set;
    return pending_.isEmpty() ? std::nullopt : std::optional<KeptSet>(pending_.first());
}

bool WritingKeeper::ready() const {
    std::optional<KeptSet> set = shown();
    return set && roots_.contains(set->disk);
}

QString WritingKeeper::status() const {
    std::optional<KeptSet> set = shown();
    if (!set) return QString();
    if (work_ == Work::Mounting) return QStringLiteral("Looking for the new stick's data partition…");
    if (work_ == Work::PuttingBack) return progress_;
    qsizetype others = pending_.size() - 1;
    QString more = others == 0   ? QString()
                   : others == 1 ? QStringLiteral(" One more set of writing is kept too.")
                                 : QStringLiteral(" %1 more sets of writing are kept too.").arg(others);
    if (ready())
        return QStringLiteral("The writing from ") + described(*set) +
               QStringLiteral(" is kept on this computer and can go back on its stick now.") + more;
    return QStringLiteral("The writing from ") + described(*set) +
           QStringLiteral(" is kept on this computer. To put it back, plug in the stick it came from (") + set->stick +
           QStringLiteral("); if it is in, unplug it and plug it in again.") + more;
}

void WritingKeeper::adopt(const KeptSet& set) {
    pending_.append(set);
    lookTimer_.start();
    emit changed();
}

void WritingKeeper::discard(const KeptSet& set) {
    KeepWriting::forget(set);
    pending_.removeIf([&](const KeptSet& s) { return s.folder == set.folder; });
    emit changed();
}

bool WritingKeeper::written(const QString& disk) {
    bool any = false;
    for (const KeptSet& set : pending_) {
        if (set.disk != disk) continue;
        offerWhenFound_.insert(set.folder);
        any = true;
    }
    if (!any) return false;
    work_ = Work::Mounting;
    roots_.remove(disk);
    emit changed();
    std::shared_ptr<StickMounts> mounts = mounts_;
    background_.post([mounts, disk] { return mounts->mountData(disk); },
                     [this, disk](std::optional<QString> root) {
                         work_ = Work::None;
                         if (root) {
                             QHash<QString, QString> roots = roots_;
                             roots.insert(disk, *root);
                             found(roots, true);
                             return;
                         }
                         emit changed();
                         tell(FlashDialog::Kind::Information, QStringLiteral("Finished"),
                              QStringLiteral("Quillmate was written successfully.\n\nTo put your writing back, unplug "
                                             "the stick and plug it in again."));
                     });
    return true;
}

void WritingKeeper::look() {
    if (looking_ || working() || pending_.isEmpty()) return;
    QStringList disks;
    for (const KeptSet& set : pending_)
        if (!disks.contains(set.disk)) disks << set.disk;
    looking_ = true;
    std::shared_ptr<StickMounts> mounts = mounts_;
    background_.post(
        [mounts, disks] {
            QHash<QString, QString> roots;
            for (const QString& disk : disks)
                if (std::optional<QString> root = mounts->dataRoot(disk)) roots.insert(disk, *root);
            return roots;
        },
        [this](QHash<QString, QString> roots) {
            looking_ = false;
            // A set that went back meanwhile, or a write that began, makes this look out of date.
            if (!working()) found(roots, false);
        });
}

// The sticks mounted now; a stick written in this session is offered at once when it shows.
void WritingKeeper::found(const QHash<QString, QString>& rootsByDisk, bool justWritten) {
    bool same = rootsByDisk == roots_;
    roots_ = rootsByDisk;
    if (!same) emit changed();
    if (offered_ && !roots_.contains(offered_->disk)) {  // unplugged while asked: offered again when back
        offerWhenFound_.insert(offered_->folder);
        offered_.reset();
        emit dialogClosed(offerId_);
    }
    if (offered_) return;  // one at a time
    for (const KeptSet& set : QList<KeptSet>(pending_)) {
        if (!roots_.contains(set.disk) || !offerWhenFound_.remove(set.folder)) continue;
        offer(set, justWritten);
        return;
    }
}

void WritingKeeper::offer(const KeptSet& set, bool justWritten) {
    QString text = (justWritten ? QStringLiteral("Quillmate was written successfully.\n\n") : QString()) +
                   QStringLiteral("Put the writing from ") + described(set) +
                   QStringLiteral(" back on the stick now? The documents and their histories come from the backup "
                                  "folder, the drive's key and statistics from this computer.");
    offered_ = set;
    emit dialogRequested({FlashDialog::Kind::Information, kPutBack, text, {kPutBack, QStringLiteral("Later")}, 1,
                          ++offerId_});
}

void WritingKeeper::answer(int id, int button) {
    if (!offered_ || id != offerId_) return;
    KeptSet set = *std::exchange(offered_, std::nullopt);
    if (button == 0 && !working() && roots_.contains(set.disk)) putBackOnto(set, roots_.value(set.disk));
}

void WritingKeeper::putBack() {
    std::optional<KeptSet> set = shown();
    if (!set || !ready() || working()) return;
    putBackOnto(*set, roots_.value(set->disk));
}

void WritingKeeper::putBackOnto(const KeptSet& set, const QString& root) {
    work_ = Work::PuttingBack;
    progress_ = QStringLiteral("Putting your writing back…");
    emit changed();
    Backup::RunOptions options;
    options.progress = Backup::throttled(kProgressInterval, [this](const BackupProgress& p) {
        background_.deliver([this, p] {
            progress_ =
                QStringLiteral("Putting your writing back… %1 of %2 files").arg(p.filesDone).arg(p.filesTotal);
            emit changed();
        });
    });
    background_.post([set, root, options] { return KeepWriting::putBack(set, root, options); },
                     [this, set](const KeepWriting::PutBack& outcome) {
                         work_ = Work::None;
                         if (outcome.ok) {
                             pending_.removeIf([&](const KeptSet& s) { return s.folder == set.folder; });
                             if (pending_.isEmpty()) lookTimer_.stop();
                         }
                         emit changed();
                         if (outcome.ok)
                             tell(FlashDialog::Kind::Information, QStringLiteral("Your writing is back"),
                                  outcome.message + QStringLiteral("\n\nBoot the target machine from this USB."));
                         else
                             tell(FlashDialog::Kind::Critical, QStringLiteral("Putting your writing back failed"),
                                  outcome.message +
                                      QStringLiteral("\n\nNothing kept was deleted: the drive's key and statistics "
                                                     "stay on this computer and the documents in the backup folder, "
                                                     "ready for another try."));
                     });
}

void WritingKeeper::tell(FlashDialog::Kind kind, const QString& title, const QString& text) {
    emit dialogRequested(FlashDialog{kind, title, text, {QStringLiteral("OK")}});
}
