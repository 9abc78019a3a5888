// The Install tab's model: the external drives and the chosen one, the boot mode and file
// system, and the write itself: unmount, the writer run with administrator rights, and its
// progress, read back and outcome. Drive scans and the write run in the background.
#pragma once
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <functional>
#include <memory>
#include <optional>

#include "background_queue.h"
#include "disk_scanner.h"
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
    void setDialogs(FlashDialogs* dialogs) {
        dialogs_ = dialogs;
        keeper_.setDialogs(dialogs);
    }
    void setResourceFolder(std::optional<QString> folder) { resources_ = std::move(folder); }
    void setLauncher(Launcher launcher) { launch_ = std::move(launcher); }
    void setStartGate(StartGate gate) { startGate_ = std::move(gate); }

    const QList<USBDrive>& allDrives() const { return allDrives_; }
    const QList<USBDrive>& drives() const { return drives_; }
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
    // Writing kept across a reflash: backed up before the erase, put back after the write.
    WritingKeeper& keeper() { return keeper_; }
    const WritingKeeper& keeper() const { return keeper_; }

    std::optional<USBDrive> selectedDrive() const;
    int hiddenCount() const;
    QString notes() const;
    QString resourceName() const;
    // The chosen image's size on the disk, as its gzip trailer tells: a lower bound for an image
    // that may be larger than 4 GiB, since the trailer keeps the size modulo that. None without a
    // readable image.
    std::optional<qint64> imageSize() const;

    // Lists the external drives again in the background; the selection stays while its id is listed.
    void refresh();
    void applyFilter();
    void setShowAll(bool on);
    void select(const QString& id);
    void setBoot(BootMode mode);
    void setFs(FSChoice fs);
    // Confirms, checks the resources and starts the write in the background.
    void flash();

signals:
    void changed();
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
    void applyScan(QList<USBDrive> found);
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
    FlashDialogs* dialogs_ = nullptr;
    std::optional<QString> resources_;
    Launcher launch_;
    StartGate startGate_;
    QList<USBDrive> allDrives_;
    QList<USBDrive> drives_;
    std::optional<QString> selection_;
    bool showAll_ = false;
    BootMode boot_ = BootMode::uefi;
    FSChoice fs_ = FSChoice::fat32;
    double progress_ = 0;
    QString status_;
    QString detail_;
    bool busy_ = false;
    int scanning_ = 0;
    QElapsedTimer phaseClock_;  // since the first report of the phase (writing, checking)
    WriterLine::Kind phase_ = WriterLine::Other;
    WritingKeeper keeper_;
    BackgroundQueue background_;  // last: stopped first
};
