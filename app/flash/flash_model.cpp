#include "flash_model.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <memory>
#include <utility>

#include "gzip_size.h"
#include "launcher.h"
#include "resources.h"

QString displayText(BootMode mode) {
    return mode == BootMode::bios ? QStringLiteral("BIOS / Legacy") : QStringLiteral("UEFI");
}
QString displayText(FSChoice fs) { return fs == FSChoice::exfat ? QStringLiteral("exFAT") : QStringLiteral("FAT32"); }

namespace {

const QString kFailedTitle = QStringLiteral("Install failed");
const QString kBackUpFirst = QStringLiteral("Back up, then erase");
const QString kBackingUp = QStringLiteral("Backing up your writing…");
const QString kUnmounting = QStringLiteral("Unmounting volumes…");
const QString kDidNotComplete = QStringLiteral("the write did not complete.");
// Progress is drawn at most this often; a backup of thousands of small files would otherwise
// queue a repaint per file.
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

QString mebibytes(double bytes) { return QString::number(qint64(bytes) / 1048576); }

// "38 MB/s, about 1 min left" once a phase has run long enough to say.
QString pace(double done, double total, qint64 elapsedMs) {
    if (elapsedMs < 1000 || done <= 0) return QString();
    double perSecond = done * 1000.0 / double(elapsedMs);
    double left = std::max(0.0, total - done) / perSecond;
    QString rate = QStringLiteral("%1 MB/s").arg(qRound64(perSecond / 1048576.0));
    if (left < 60) return rate + QStringLiteral(", less than a minute left");
    return rate + QStringLiteral(", about %1 min left").arg(qint64(std::ceil(left / 60.0)));
}

// The confirmation's words on a stick that holds writing.
QString holdsWriting(const StickWriting& writing) {
    QString count = writing.documents == 1 ? QStringLiteral("1 document")
                                           : QStringLiteral("%1 documents").arg(writing.documents);
    return QStringLiteral("\n\nThis stick holds writing: ") + count + QStringLiteral(". ") + kBackUpFirst +
           QStringLiteral(" copies it into your backup folder, keeps the drive's key and statistics on this computer, "
                          "and puts it all back on the new stick.");
}

bool mentions_permission(const QString& message) {
    return message.contains(QStringLiteral("permission"), Qt::CaseInsensitive) ||
           message.contains(QStringLiteral("denied"), Qt::CaseInsensitive);
}

// The failure dialog's text for the writer's error, or for no error at all.
QString failure_text(const std::optional<QString>& error) {
    QString message = error.value_or(kDidNotComplete);
    if (message == FlashModel::kDriveChanged) return message;  // plugging in again would not help
    if (mentions_permission(message))
        return platformName() + QStringLiteral(" denied writing to the drive.\n\n• If it's an SD card, slide the "
                                               "write-protect (lock) switch on the side OFF.\n• ") +
               unmountAdvice() + QStringLiteral("\n\n(") + message + QStringLiteral(")");
    return error.value_or(QStringLiteral("The write did not complete.")) +
           QStringLiteral("\n\nMake sure the drive is plugged in and not write-protected, then try again.");
}

// The confirmed drive among those listed now, by the name the writer is given as well: a disk
// re-plugged while the user was asked may have left its kernel name to another.
bool listed(const QList<USBDrive>& now, const USBDrive& drive) {
    return std::any_of(now.begin(), now.end(),
                       [&](const USBDrive& d) { return d == drive && d.devicePath == drive.devicePath; });
}

}  // namespace

const QString FlashModel::kDriveChanged = QStringLiteral("The drive changed since you confirmed it; choose it again.");

FlashModel::FlashModel(std::unique_ptr<DiskScanner> scanner, QObject* parent)
    : QObject(parent), scanner_(std::move(scanner)), resources_(Resources::folder()) {
    launch_ = [](const QString& tool, const QString& image, const QString& device) {
        return qm_authorized_run(QFile::encodeName(tool).constData(), QFile::encodeName(image).constData(),
                                 QFile::encodeName(device).constData());
    };
}

std::optional<USBDrive> FlashModel::selectedDrive() const {
    for (const USBDrive& d : drives())
        if (selection_ && d.id == *selection_) return d;
    return std::nullopt;
}

int FlashModel::hiddenCount() const {
    return int(std::count_if(allDrives_.begin(), allDrives_.end(), [](const USBDrive& d) { return d.size == 0; }));
}

QString FlashModel::notes() const {
    QString boot =
        boot_ == BootMode::bios
            ? QStringLiteral("BIOS / Legacy: older PCs, or newer PCs with Legacy / CSM boot enabled in firmware.")
            : QStringLiteral("UEFI: PCs from roughly 2012 on. Turn OFF Secure Boot in firmware. If it won't boot, "
                             "try the BIOS version.");
    QString fs =
        fs_ == FSChoice::exfat
            ? QStringLiteral("exFAT: best for cards larger than 32 GB; read/write on Windows and macOS.")
            : QStringLiteral("FAT32: most compatible everywhere; single files limited to 4 GB (fine for documents).");
    return boot + QStringLiteral("\n\n") + fs;
}

QString FlashModel::resourceName() const {
    return QLatin1String(boot_ == BootMode::bios ? "bios_" : "uefi_") +
           QLatin1String(fs_ == FSChoice::exfat ? "exfat" : "fat32");
}

std::optional<qint64> FlashModel::imageSize() {
    if (!resources_) return std::nullopt;
    QString path = QDir(*resources_).filePath(QStringLiteral("images/") + resourceName() + QStringLiteral(".img.gz"));
    if (std::optional<qint64> size = GzipSize::fromTrailer(path)) return size;
    QFileInfo image(path);
    if (!image.isFile()) return std::nullopt;
    // A replaced image is counted again.
    QString key = path + u'|' + QString::number(image.size()) + u'|' +
                  QString::number(image.lastModified().toMSecsSinceEpoch());
    if (!imageSizes_.contains(key)) {
        imageSizes_.insert(key, std::nullopt);
        counting_.post([path] { return GzipSize::counted(path); },
                       [this, key](std::optional<qint64> size) {
                           imageSizes_.insert(key, size);
                           if (size) emit changed();
                       });
    }
    return imageSizes_.value(key);
}

void FlashModel::refresh() {
    ++scanning_;
    emit changed();
    DiskScanner* scanner = scanner_.get();
    background_.post([scanner] { return scanner->externalDrives(); },
                     [this](QList<USBDrive> found) {
                         --scanning_;
                         applyScan(std::move(found));
                     });
}

void FlashModel::applyScan(QList<USBDrive> found) {
    // Smallest first: the stick meant for the deck rather than a backup disk; ties keep their order.
    std::stable_sort(found.begin(), found.end(), [](const USBDrive& a, const USBDrive& b) { return a.size < b.size; });
    allDrives_ = std::move(found);
    applyFilter();
    dropPendingIfGone();
}

void FlashModel::applyFilter() {
    QList<USBDrive> shownDrives;
    for (const USBDrive& d : allDrives_)
        if (showAll_ || d.size != 0) shownDrives.append(d);
    driveList_.update(shownDrives);
    if (!selectedDrive())
        selection_ = shownDrives.isEmpty() ? std::nullopt : std::optional<QString>(shownDrives.first().id);
    qsizetype shown = shownDrives.size(), hidden = allDrives_.size() - shown;
    if (!busy_) {  // during a write the status line belongs to the write
        if (shown > 0)
            status_ = QStringLiteral("%1 external USB drive(s) found").arg(shown) +
                      (hidden > 0 ? QStringLiteral(", %1 empty hidden.").arg(hidden) : QStringLiteral("."));
        else
            status_ = hidden > 0 ? QStringLiteral("%1 empty drive(s) hidden — click Show all.").arg(hidden)
                                 : QStringLiteral("No USB drives found.");
    }
    emit changed();
}

// A drive asked about that a scan no longer lists is not written: its question goes away.
void FlashModel::dropPendingIfGone() {
    if (!pending_ || listed(allDrives_, pending_->drive)) return;
    int id = pending_->id;
    pending_.reset();
    status_ = QStringLiteral("The drive went away before the write began; nothing was written.");
    emit dialogClosed(id);
    emit changed();
}

void FlashModel::setShowAll(bool on) {
    showAll_ = on;
    applyFilter();
}

void FlashModel::select(const QString& id) {
    selection_ = id;
    emit changed();
}

void FlashModel::setBoot(BootMode mode) {
    boot_ = mode;
    emit changed();
}

void FlashModel::setFs(FSChoice fs) {
    fs_ = fs;
    emit changed();
}

void FlashModel::tell(FlashDialog::Kind kind, const QString& title, const QString& text) {
    emit dialogRequested(FlashDialog{kind, title, text, {QStringLiteral("OK")}});
}

void FlashModel::flash() {
    if (busy_ || pending_) return;
    std::optional<USBDrive> drive = selectedDrive();
    if (!drive) {
        status_ = QStringLiteral("Select a USB drive first.");
        emit changed();
        return;
    }
    if (keeper_.working()) {  // the stick may be the one its writing is going back on
        status_ = QStringLiteral("Wait until your writing is back on the stick.");
        emit changed();
        return;
    }
    std::optional<StickWriting> writing = keeper_.writingOn(*drive);
    QString confirm = QStringLiteral("This will ERASE everything on:\n\n    ") + driveLine(*drive) +
                      QStringLiteral("\n\nand write Quillmate (") +
                      QLatin1String(boot_ == BootMode::bios ? "BIOS" : "UEFI") + QStringLiteral(", ") +
                      displayText(fs_) + QStringLiteral(".") + (writing ? holdsWriting(*writing) : QString()) +
                      QStringLiteral("\n\nContinue?");
    FlashDialog question{FlashDialog::Kind::Warning, QStringLiteral("Confirm erase"), confirm,
                         {QStringLiteral("Cancel"), QStringLiteral("Erase & Flash")}};
    if (writing) question = {FlashDialog::Kind::Warning, question.title, confirm,
                             {kBackUpFirst, QStringLiteral("Erase anyway"), QStringLiteral("Cancel")}, 2};
    question.id = ++lastQuestion_;
    pending_ = Pending{question.id, *drive, resourceName(), writing};
    emit changed();
    emit dialogRequested(question);  // last: the answer may come at once
}

void FlashModel::answer(int id, int button) {
    if (!pending_ || pending_->id != id) return;
    bool backUpFirst = pending_->writing && button == 0;
    if (button != 1 && !backUpFirst) {  // "Erase & Flash" and "Erase anyway" are both the second
        pending_.reset();
        emit changed();
        return;
    }
    if (!backUpFirst) {
        Pending confirmed = *std::exchange(pending_, std::nullopt);
        return goOn(confirmed, std::nullopt);
    }
    QString folder = keeper_.destination();
    if (folder.isEmpty()) return askFolder();
    Pending confirmed = *std::exchange(pending_, std::nullopt);
    goOn(confirmed, folder);
}

void FlashModel::askFolder() {
    pending_->id = ++lastQuestion_;
    emit folderRequested(pending_->id, QStringLiteral("Choose a folder for the backup of your writing"));
}

void FlashModel::answerFolder(int id, const QString& folder) {
    if (!pending_ || pending_->id != id) return;
    Pending confirmed = *std::exchange(pending_, std::nullopt);
    if (folder.isEmpty()) {
        status_ = QStringLiteral("Nothing was written: no folder was chosen for the backup.");
        emit changed();
        return;
    }
    keeper_.keepDestination(folder);
    goOn(confirmed, folder);
}

// After the confirmation: the resources are checked and the write starts.
void FlashModel::goOn(const Pending& confirmed, const std::optional<QString>& backupFolder) {
    emit changed();  // no longer asking
    // Canonical: the writer opens the image by a path without links, so nothing can redirect it.
    QString image = resources_ ? QFileInfo(QDir(*resources_).filePath(QStringLiteral("images/") + confirmed.resource +
                                                                      QStringLiteral(".img.gz")))
                                     .canonicalFilePath()
                               : QString();
    if (image.isEmpty()) {
        tell(FlashDialog::Kind::Critical, kFailedTitle,
             QStringLiteral("Bundled image '") + confirmed.resource + QStringLiteral("' is missing from this app."));
        return;
    }
    QString writer = QDir(*resources_).filePath(QStringLiteral("qm-writer"));
    if (!QFileInfo::exists(writer)) {
        tell(FlashDialog::Kind::Critical, kFailedTitle,
             QStringLiteral("The privileged writer is missing from this app."));
        return;
    }
    std::optional<KeepWriting::Plan> plan;
    if (backupFolder) {
        const USBDrive& drive = confirmed.drive;
        plan = KeepWriting::Plan{confirmed.writing->volume, *backupFolder, drive.devicePath, drive.model,
                                 confirmed.writing->documents};
    }
    if (std::optional<QString> refusal = startGate_ ? startGate_() : std::nullopt) {
        status_ = *refusal;
        emit changed();
        return;
    }
    start(confirmed.drive, writer, image, plan);
}

void FlashModel::start(const USBDrive& drive, const QString& writer, const QString& image,
                       const std::optional<KeepWriting::Plan>& plan) {
    busy_ = true;
    progress_ = 0;
    detail_.clear();
    phase_ = WriterLine::Other;
    status_ = plan ? kBackingUp : kUnmounting;
    emit changed();
    QString whole = scanner_->wholeDiskPath(drive.id), keptRoot = keeper_.keptRoot();
    background_.post([=, this] { return doFlash(writer, image, drive, whole, plan, keptRoot); },
                     [this, drive](Outcome outcome) { finish(outcome, drive); });
}

// On the background thread: touches no member but the scanner, the launcher and the queue.
FlashModel::Outcome FlashModel::doFlash(const QString& writer, const QString& image, const USBDrive& drive,
                                        const QString& whole, const std::optional<KeepWriting::Plan>& plan,
                                        const QString& keptRoot) {
    Outcome outcome;
    QList<USBDrive> now = scanner_->externalDrives();
    if (!listed(now, drive)) {
        outcome.error = kDriveChanged;
        outcome.drives = std::move(now);
        return outcome;
    }
    if (plan) {
        KeepWriting::Kept kept = KeepWriting::keep(*plan, keptRoot, backupProgress());
        if (!kept.set) {
            outcome.notKept = kept.problem;
            return outcome;
        }
        outcome.kept = kept.set;
        background_.deliver([this] {
            status_ = kUnmounting;
            progress_ = 0;  // the bar is the write's from here
            emit changed();
        });
    }
    scanner_->unmountDisk(whole);  // ignored on purpose: the writer copes with a mounted disk
    ElevatedRun run = launch_(writer, image, drive.devicePath);
    if (run.status != 0 || !run.output) {
        outcome.launchStatus = run.status != 0 ? run.status : kAuthDenied;
        return outcome;
    }
    readReports(run.output, outcome);
    fclose(run.output);
    if (run.ended) outcome.launchStatus = run.ended(outcome.spoke);
    if (outcome.error == kDriveChanged && !outcome.done) outcome.drives = scanner_->externalDrives();
    return outcome;
}

void FlashModel::readReports(FILE* out, Outcome& outcome) {
    char buf[kWriterLineLimit + 1];
    bool overLong = false;  // the rest of a line too long to be a report
    while (fgets(buf, sizeof buf, out)) {
        size_t n = strlen(buf);
        bool complete = n > 0 && buf[n - 1] == '\n';
        bool skip = overLong;
        overLong = !complete && n == sizeof buf - 1;
        if (skip || overLong) continue;
        WriterLine line = parseWriterLine(std::string_view(buf, n));
        outcome.spoke = outcome.spoke || line.kind != WriterLine::Other;
        if (line.kind == WriterLine::Done) outcome.done = true;
        if (line.kind == WriterLine::Error) outcome.error = QString::fromUtf8(line.message.c_str());
        if (line.kind == WriterLine::Checked || line.kind == WriterLine::Progress || line.kind == WriterLine::Verified)
            background_.deliver([this, line] { showReport(line); });
    }
}

void FlashModel::showReport(const WriterLine& line) {
    if (line.kind != phase_) {
        phase_ = line.kind;
        phaseClock_.start();
    }
    progress_ = std::min(line.done / line.total, 1.0);
    if (line.kind == WriterLine::Checked) {  // a few seconds of small reads and writes: no pace to tell
        status_ = QStringLiteral("Checking the drive…");
        detail_.clear();
        emit changed();
        return;
    }
    status_ = (line.kind == WriterLine::Verified ? QStringLiteral("Verifying… ") : QStringLiteral("Writing… ")) +
              mebibytes(line.done) + QStringLiteral(" MB");
    detail_ = pace(line.done, line.total, phaseClock_.elapsed());
    emit changed();
}

void FlashModel::finish(const Outcome& outcome, const USBDrive& drive) {
    busy_ = false;
    detail_.clear();
    if (outcome.drives) applyScan(*outcome.drives);  // first: its count would replace the outcome's status
    if (outcome.notKept) {
        status_ = QStringLiteral("Nothing was written: your writing could not be backed up.");
        emit changed();
        tell(FlashDialog::Kind::Critical, kFailedTitle,
             QStringLiteral("Your writing could not be backed up, so nothing was written.\n\n") + *outcome.notKept);
        emit finished();
        return;
    }
    if (outcome.kept) {
        // A writer that never started left the stick as it was; one that ran may have erased it.
        if (outcome.launchStatus != 0)
            keeper_.discard(*outcome.kept);
        else
            keeper_.adopt(*outcome.kept);
    }
    if (outcome.launchStatus != 0) {
        bool cancelled = outcome.launchStatus == kAuthCanceled;
        status_ = cancelled ? QStringLiteral("Cancelled.")
                            : QStringLiteral("Failed: could not get administrator privileges.");
        emit changed();
        if (!cancelled)
            tell(FlashDialog::Kind::Critical, kFailedTitle,
                 platformName() + QStringLiteral(" denied administrator privileges, so the drive can't be written.\n\n"
                                                 "Try again and enter an administrator password."));
        emit finished();
        return;
    }
    if (outcome.done) {
        progress_ = 1.0;
        bool goesBack = keeper_.written(drive.devicePath);  // it offers the rest
        status_ = goesBack ? QStringLiteral("Done — your writing goes back on next.")
                           : QStringLiteral("Done — you can remove the drive.");
        emit changed();
        if (!goesBack)
            tell(FlashDialog::Kind::Information, QStringLiteral("Finished"),
                 QStringLiteral("Quillmate was written successfully.\n\nBoot the target machine from this USB."));
        emit finished();
        return;
    }
    status_ = QStringLiteral("Failed: ") + outcome.error.value_or(kDidNotComplete);
    emit changed();
    tell(FlashDialog::Kind::Critical, kFailedTitle,
         failure_text(outcome.error) +
             (outcome.kept ? QStringLiteral("\n\nYour writing is kept: once the stick is written, it goes back on.")
                           : QString()));
    emit finished();
}

// The backup before an erase reports like a backup: files done of files to do.
Backup::RunOptions FlashModel::backupProgress() {
    Backup::RunOptions options;
    options.progress = Backup::throttled(kProgressInterval, [this](const BackupProgress& p) {
        background_.deliver([this, p] {
            status_ = kBackingUp + QStringLiteral(" %1 of %2 files").arg(p.filesDone).arg(p.filesTotal);
            progress_ = p.filesTotal > 0 ? double(p.filesDone) / p.filesTotal : 0;
            emit changed();
        });
    });
    return options;
}
