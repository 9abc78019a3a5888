// The Install tab's model: the external drives and the chosen one, the boot mode and file
// system, and the write itself: unmount, the writer run with administrator rights, and its
// progress, read back and outcome. Drive scans and the write run in the background. The model
// never waits on the user: it asks by a signal and goes on when the answer comes.
#pragma once
#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <functional>
#include <memory>
#include <optional>

#include "background_queue.h"
#include "disk_scanner.h"
#include "drive_list.h"
#include "flash_dialogs.h"
#include "launcher.h"
#include "writer_protocol.h"
#include "writing_keeper.h"

enum class BootMode { uefi, bios };
enum class FSChoice { fat32, exfat };
QString displayText(BootMode mode);
QString displayText(FSChoice fs);

class FlashModel : public QObject {
    Q_OBJECT
public:
    // Runs the writer as root with two arguments: a stream on its output, or a status.
    using Launcher = std::function<ElevatedRun(const QString& tool, const QString& image, const QString& device)>;
    // Why a write must not start now (the program is about to restart), or none.
    using StartGate = std::function<std::optional<QString>()>;
    // The writer's text for a disk that is no longer the one confirmed; the model says it too.
    static const QString kDriveChanged;

    explicit FlashModel(std::unique_ptr<DiskScanner> scanner = DiskScanner::platform(), QObject* parent = nullptr);

    // What the model needs from outside, replaceable for tests.
    void setResourceFolder(std::optional<QString> folder) { resources_ = std::move(folder); }
    void setLauncher(Launcher launcher) { launch_ = std::move(launcher); }
    void setStartGate(StartGate gate) { startGate_ = std::move(gate); }

    const QList<USBDrive>& allDrives() const { return allDrives_; }
    const QList<USBDrive>& drives() const { return driveList_.drives(); }
    // The same drives as an item model, for the picker.
    DriveList* driveList() { return &driveList_; }
    const std::optional<QString>& selection() const { return selection_; }
    bool showAll() const { return showAll_; }
    BootMode boot() const { return boot_; }
    FSChoice fs() const { return fs_; }
    double progress() const { return progress_; }
    const QString& status() const { return status_; }
    // Speed and time left while writing, else empty.
    const QString& detail() const { return detail_; }
    bool busy() const { return busy_; }
    bool scanning() const { return scanning_ > 0; }
    // A question about the write is waiting for its answer.
    bool asking() const { return pending_.has_value(); }
    // Writing kept across a reflash: backed up before the erase, put back after the write.
    WritingKeeper& keeper() { return keeper_; }
    const WritingKeeper& keeper() const { return keeper_; }

    std::optional<USBDrive> selectedDrive() const;
    int hiddenCount() const;
    QString notes() const;
    QString resourceName() const;
    // The chosen image's size on the disk; none without a readable image, and until an image
    // whose gzip trailer cannot tell (it keeps the size modulo 4 GiB) has been counted in the
    // background.
    std::optional<qint64> imageSize();

    // Lists the external drives again in the background; the selection stays while its id is listed.
    void refresh();
    void applyFilter();
    void setShowAll(bool on);
    void select(const QString& id);
    void setBoot(BootMode mode);
    void setFs(FSChoice fs);
    // Asks for the confirmation; the write starts once it is answered.
    void flash();

public slots:
    // The button pressed on the dialog with this id (-1: none); an answer to a question no
    // longer open is ignored.
    void answer(int id, int button);
    // The folder chosen for the backup (empty: none).
    void answerFolder(int id, const QString& folder);

signals:
    void changed();
    // Show this dialog; a question (id not 0) is answered through answer().
    void dialogRequested(const FlashDialog& dialog);
    // Ask for a folder for the backup; answered through answerFolder().
    void folderRequested(int id, const QString& caption);
    // The question with this id is void (its drive went away): close it unanswered.
    void dialogClosed(int id);
    // A write has ended, well or not.
    void finished();

private:
    struct Outcome {
        int launchStatus = 0;
        bool done = false;
        bool spoke = false;  // the writer printed a line of its protocol
        std::optional<QString> error;
        std::optional<QList<USBDrive>> drives;  // listed again: the confirmed drive was not there
        std::optional<QString> notKept;         // the writing could not be backed up: nothing was written
        std::optional<KeptSet> kept;            // kept before the write
    };
    // A write confirmed, or being confirmed: the drive and image as they were when asked.
    struct Pending {
        int id = 0;
        USBDrive drive;
        QString resource;
        std::optional<StickWriting> writing;
    };
    void applyScan(QList<USBDrive> found);
    void dropPendingIfGone();
    void askFolder();
    void goOn(const Pending& pending, const std::optional<QString>& backupFolder);
    void start(const USBDrive& drive, const QString& writer, const QString& image,
               const std::optional<KeepWriting::Plan>& plan);
    Outcome doFlash(const QString& writer, const QString& image, const USBDrive& drive, const QString& whole,
                    const std::optional<KeepWriting::Plan>& plan, const QString& keptRoot);
    Backup::RunOptions backupProgress();
    void readReports(FILE* out, Outcome& outcome);
    void showReport(const WriterLine& line);
    void finish(const Outcome& outcome, const USBDrive& drive);
    void tell(FlashDialog::Kind kind, const QString& title, const QString& text);

    std::unique_ptr<DiskScanner> scanner_;
    std::optional<QString> resources_;
    Launcher launch_;
    StartGate startGate_;
    QList<USBDrive> allDrives_;
    DriveList driveList_;
    std::optional<QString> selection_;
    bool showAll_ = false;
    BootMode boot_ = BootMode::uefi;
    FSChoice fs_ = FSChoice::fat32;
    double progress_ = 0;
    QString status_;
    QString detail_;
    bool busy_ = false;
    int scanning_ = 0;
    std::optional<Pending> pending_;
    int lastQuestion_ = 0;
    QHash<QString, std::optional<qint64>> imageSizes_;  // by path, size and time; none while counted
    QElapsedTimer phaseClock_;  // since the first report of the phase (writing, checking)
    WriterLine::Kind phase_ = WriterLine::Other;
    WritingKeeper keeper_;
    BackgroundQueue counting_;    // images' sizes: seconds for a large one, which scans need not wait for
    BackgroundQueue background_;  // last: stopped first
};
