// The Install tab: its model against stand-in drives, writers and elevating programs, a stick's
// writing kept across a write, the view, the writer's line reader and the disks' lasting names.
#include <gtest/gtest.h>
#include <unistd.h>

#include <QAbstractItemModelTester>
#include <QComboBox>
#include <QGroupBox>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <filesystem>

#include "deck_drive.h"
#include "disk_links.h"
#include "flash_fakes.h"
#include "keep_writing.h"
#include "flash_view.h"
#include "launcher.h"
#include "zero_image.h"

namespace {

// A model over scripted drives with a resource folder whose writer prints `lines`, started
// through `elevator` when one is set.
struct Bench {
    QList<USBDrive> list;
    std::atomic<int> unmounts{0};
    FlashModel m{std::make_unique<FakeScanner>(&list, &unmounts)};
    QAbstractItemModelTester tester{m.driveList(), QAbstractItemModelTester::FailureReportingMode::Fatal};
    Answers answers;
    TempDir res;
    QStringList statuses;
    QStringList launched;  // the writer, the image and the device it was given
    std::string elevator;
    Bench() {
        answers.attach(m);
        m.setResourceFolder(QString::fromStdString(res.path()));
        m.setLauncher([this](const QString& tool, const QString& image, const QString& device) {
            launched = {tool, image, device};
            return qm_exec_through(elevator.empty() ? nullptr : elevator.c_str(), qPrintable(tool), qPrintable(image),
                                   qPrintable(device));
        });
        QObject::connect(&m, &FlashModel::changed, [this] {
            if (statuses.isEmpty() || statuses.last() != m.status()) statuses << m.status();
        });
    }
    void scan(const QList<USBDrive>& drives) {
        list = drives;
        m.refresh();
        ASSERT_TRUE(QTest::qWaitFor([this] { return !m.scanning(); }, 10000));
    }
    void giveResources(const std::string& lines, int exitStatus = 0) {
        ::giveResources(res, m.resourceName(), lines, exitStatus);
    }
    void write() {
        m.flash();
        ASSERT_TRUE(QTest::qWaitFor([this] { return !m.busy(); }, 10000));
    }
};

const USBDrive kReader{"sdc", "Card Reader", 0, "/dev/sdc"},
    kStick{"sdb", "Cruzer Fit", 16000000000, "/dev/disk/by-id/usb-SanDisk_Cruzer_Fit_4C53-0:0"},
    kTwin{"sdd", "Cruzer Fit", 16000000000, "/dev/disk/by-id/usb-SanDisk_Cruzer_Fit_77A1-0:0"},
    kDisk{"sde", "Backup", 2000000000000, "/dev/disk/by-id/usb-WD_Elements_2621-0:0"};

TEST(FlashDrives, OrderFilterSelectionAndStatus) {
    const struct { QList<USBDrive> found; bool showAll; QList<QString> ids; QString status; } cases[] = {
        {{}, false, {}, "No USB drives found."},
        {{kReader}, false, {}, "1 empty drive(s) hidden — click Show all."},
        {{kReader}, true, {"sdc"}, "1 external USB drive(s) found."},
        {{kDisk, kStick}, false, {"sdb", "sde"}, "2 external USB drive(s) found."},
        {{kTwin, kReader, kStick}, false, {"sdd", "sdb"}, "2 external USB drive(s) found, 1 empty hidden."},
    };
    for (const auto& c : cases) {
        Bench b;
        b.m.setShowAll(c.showAll);
        b.scan(c.found);
        QList<QString> ids;
        for (const USBDrive& d : b.m.drives()) ids << d.id;
        EXPECT_EQ(ids, c.ids) << c.status.toStdString();
        EXPECT_EQ(b.m.status(), c.status);
        EXPECT_EQ(b.m.selection(), c.ids.isEmpty() ? std::nullopt : std::optional<QString>(c.ids.first()));
    }
    // A choice survives a refresh while its id is listed, and so does its row: rows move, come
    // and go around it, and a row changes only where its drive did.
    Bench b;
    b.scan({kStick, kDisk});
    b.m.select("sde");
    QPersistentModelIndex chosen = b.m.driveList()->index(1);
    QSignalSpy changedRows(b.m.driveList(), &QAbstractItemModel::dataChanged);
    b.scan({kDisk, kTwin, kReader, {"sdb", "Cruzer Fit 2", 16000000000}});
    EXPECT_EQ(b.m.selection(), "sde");
    EXPECT_EQ(b.m.hiddenCount(), 1);
    EXPECT_EQ(chosen.row(), 2);
    EXPECT_EQ(chosen.data(DriveList::IdRole), "sde");
    ASSERT_EQ(changedRows.size(), 1);
    EXPECT_EQ(changedRows[0][0].toModelIndex().data().toString(), "Cruzer Fit 2  (14.9 GB)   [sdb]");
    b.scan({kStick});
    EXPECT_EQ(b.m.selection(), "sdb");
    EXPECT_FALSE(chosen.isValid());
    EXPECT_EQ(b.m.driveList()->index(0).data(), "Cruzer Fit  (14.9 GB)   [sdb]");
}

TEST(FlashStart, ConfirmationAndMissingResources) {
    Bench b;
    b.m.flash();
    EXPECT_EQ(b.m.status(), "Select a USB drive first.");
    b.scan({kStick});
    b.m.setBoot(BootMode::bios);
    b.m.setFs(FSChoice::exfat);
    EXPECT_EQ(b.m.resourceName(), "bios_exfat");
    EXPECT_TRUE(b.m.notes().startsWith("BIOS / Legacy: older PCs") && b.m.notes().endsWith("Windows and macOS."));
    b.answers.answer = 0;  // Cancel
    b.m.flash();
    ASSERT_EQ(b.answers.shown.size(), 1);
    EXPECT_EQ(b.answers.shown[0], (FlashDialog{FlashDialog::Kind::Warning, "Confirm erase",
                                               "This will ERASE everything on:\n\n    Cruzer Fit  (14.9 GB)   [sdb]\n\n"
                                               "and write Quillmate (BIOS, exFAT.\n\nContinue?",
                                               {"Cancel", "Erase & Flash"}, 0, 1}));
    EXPECT_FALSE(b.m.busy());
    b.answers.answer = 1;
    b.m.flash();
    EXPECT_EQ(b.answers.shown.last().text, "Bundled image 'bios_exfat' is missing from this app.");
    spit(b.res / "images/bios_exfat.img.gz", "image");
    b.m.flash();
    EXPECT_EQ(b.answers.shown.last().text, "The privileged writer is missing from this app.");
    EXPECT_EQ(b.answers.shown.last().title, "Install failed");
    EXPECT_FALSE(b.m.busy());
}

// Scans go on while the user is asked: the stick and image asked about are the ones written,
// whatever the tab shows by then, and a stick gone meanwhile takes its question with it.
TEST(FlashStart, TheStickAskedAboutOrNone) {
    const USBDrive smaller{"sdf", "Small", 8000000000, "/dev/sdf"};
    const struct { QList<USBDrive> meanwhile; bool written; } cases[] = {
        {{smaller, kStick, kDisk}, true}, {{smaller}, false}, {{{"sdb", "Other", 16000000000, "/dev/sdb"}}, false}};
    for (const auto& c : cases) {
        Bench b;
        b.scan({kStick});
        b.giveResources("DONE\n");
        b.answers.leaveOpen = true;
        b.m.flash();
        ASSERT_TRUE(b.m.asking());
        b.m.flash();  // one question at a time
        b.scan(c.meanwhile);
        b.m.select(smaller.id);
        b.m.setBoot(BootMode::bios);  // the image asked about stays too: only uefi_fat32 is there
        b.m.answer(b.answers.shown.last().id, 1);
        EXPECT_EQ(b.answers.shown.size(), 1);
        EXPECT_EQ(b.answers.closed, c.written ? QList<int>() : QList<int>{b.answers.shown[0].id});
        EXPECT_EQ(b.m.busy(), c.written);
        ASSERT_TRUE(QTest::qWaitFor([&] { return !b.m.busy(); }, 10000));
        EXPECT_EQ(b.launched.value(2), c.written ? kStick.devicePath : QString());
        EXPECT_EQ(b.m.status(), c.written ? "Done — you can remove the drive."
                                          : "The drive went away before the write began; nothing was written.");
    }
}

// The writer's lines decide, and how the run ended only tells the elevating program's refusals
// (126: dismissed, 127: refused, before the writer said a word) from a writer that failed: a
// writer run directly, or one that has spoken, may end with those itself.
TEST(FlashWrite, TheWritersLinesAndTheElevatorDecideTheOutcome) {
    const std::string longLine(2000, 'x'), passOn = "exec \"$@\"";
    const QString done = "Quillmate was written successfully.\n\nBoot the target machine from this USB.",
                  advice = "\n\nMake sure the drive is plugged in and not write-protected, then try again.",
                  denied = "Linux denied administrator privileges, so the drive can't be written.\n\n"
                           "Try again and enter an administrator password.";
    const struct { std::string elevator, lines; int exitStatus; QString status, dialog; } cases[] = {
        {"", "C 0 8\nC 8 8\nP 0 2000000\nP 1048575 2000000\nV 2000000 2000000\nDONE\n", 0,
         "Done — you can remove the drive.", done},
        {"", "ERR first\nDONE\n", 0, "Done — you can remove the drive.", done},
        {"", "ERR Permission denied\n", 1, "Failed: Permission denied",
         "Linux denied writing to the drive.\n\n• If it's an SD card, slide the write-protect (lock) switch on the "
         "side OFF.\n• Eject the drive in the file manager and try again.\n\n(Permission denied)"},
        {"", "", 127, "Failed: the write did not complete.", "The write did not complete." + advice},
        {"", "ERR one\nP 1 0\nP 1 2 3\ngarbage\n" + longLine + "DONE\nERR  two \n", 1, "Failed: two", "two" + advice},
        {"exit 126", "", 0, "Cancelled.", ""},
        {"exit 127", "", 0, "Failed: could not get administrator privileges.", denied},
        {"/nonexistent/pkexec", "", 0, "Failed: could not get administrator privileges.", denied},
        {passOn, "ERR some writer text\n", 126, "Failed: some writer text", "some writer text" + advice},
        {passOn, "", 1, "Failed: the write did not complete.", "The write did not complete." + advice},
    };
    for (const auto& c : cases) {
        Bench b;
        b.scan({kStick});
        b.giveResources(c.lines, c.exitStatus);
        if (!c.elevator.empty()) b.elevator = c.elevator[0] == '/' ? c.elevator : script(b.res / "sudo", c.elevator);
        b.write();
        EXPECT_EQ(b.m.status(), c.status);
        ASSERT_EQ(b.answers.shown.size(), c.dialog.isEmpty() ? 1 : 2) << c.status.toStdString();
        EXPECT_EQ(b.answers.shown.value(1).text, c.dialog);
        if (c.status.startsWith("Done")) {
            EXPECT_EQ(b.m.progress(), 1.0);
        }
        if (c.lines.starts_with("C 0")) {
            EXPECT_EQ(b.statuses, (QStringList{"", "1 external USB drive(s) found.", "Unmounting volumes…",
                                               "Checking the drive…", "Writing… 0 MB",
                                               "Verifying… 1 MB", c.status}));
        }
    }
}

// A disk re-plugged while the user was asked may have handed its name to another: only the disk
// confirmed is unmounted and written, by its lasting name; the image goes by its real path.
TEST(FlashWrite, OnlyTheConfirmedDiskIsWritten) {
    const std::string changed = "The drive changed since you confirmed it; choose it again.";
    const USBDrive otherStick{"sdb", "Cruzer Fit", 16000000000, kTwin.devicePath};
    const struct { QList<USBDrive> atWrite; std::string lines; } cases[] = {  // lines: the writer runs
        {{kStick}, "DONE\n"}, {{otherStick}, ""}, {{kTwin, kDisk}, ""}, {{}, ""}, {{kStick}, "ERR " + changed + "\n"}};
    for (const auto& c : cases) {
        Bench b;
        TempDir links;
        std::filesystem::create_directory_symlink(b.res.path(), links / "res");
        b.m.setResourceFolder(QString::fromStdString(links / "res"));
        b.scan({kStick});
        b.giveResources(c.lines);
        b.list = c.atWrite;
        b.write();
        bool done = c.lines == "DONE\n", launched = !c.lines.empty();
        EXPECT_EQ(b.m.status().toStdString(), done ? "Done — you can remove the drive." : "Failed: " + changed);
        EXPECT_EQ(b.answers.shown.last().text.toStdString(),  // no advice to plug it in
                  done ? "Quillmate was written successfully.\n\nBoot the target machine from this USB." : changed);
        EXPECT_EQ(b.m.allDrives().size(), launched ? 1 : c.atWrite.size());       // listed again
        EXPECT_EQ(b.unmounts, int(launched));
        std::string image = std::filesystem::canonical(b.res.path()) / "images/uefi_fat32.img.gz";
        QStringList given{QString::fromStdString(links / "res/qm-writer"), QString::fromStdString(image),
                          kStick.devicePath};
        EXPECT_EQ(b.launched, launched ? given : QStringList());
    }
}

// A stick that holds writing is backed up and its own files kept before the erase, written only
// when all of that worked, and its writing put back on the new stick once that is mounted (at
// once, or after it is plugged in again). What could not go back stays kept, this session and
// the next.
TEST(FlashKeep, WritingGoesBackOnTheNewStickOrStaysKept) {
    const struct { const char* name; bool backupWorks, mountsAtOnce, newStickHasStats, written, putBack; } cases[] = {
        {"backup fails", false, true, false, false, false},
        {"mounted at once", true, true, false, true, true},
        {"plugged in again", true, false, false, true, true},
        {"the new stick has statistics of its own", true, true, true, true, false},
    };
    const std::string own[] = {".qm/drive.key", "stats.db", "stats.bak"};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bench b;
        TempDir oldStick, newStick, dest, app;
        auto mounts = std::make_shared<FakeMounts>();
        mounts->before = {{deckDrive(oldStick, deck::StatsState::Normal, 3), "Deck"}};
        mounts->data = QString::fromStdString(newStick.path());
        mounts->canMount = c.mountsAtOnce;
        WritingKeeper& keeper = b.m.keeper();
        keeper.setMounts(mounts);
        const QString keptRoot = QString::fromStdString(app / "kept");
        keeper.setKeptRoot(keptRoot);
        spit(dest / "a file", "");
        b.answers.folder = QString::fromStdString(c.backupWorks ? dest.path() : dest / "a file");
        b.answers.decide = [](const FlashDialog&) { return 0; };  // back up first; put it back
        if (c.newStickHasStats) spit(newStick / "stats.db", "the new stick's own");
        b.scan({kStick});
        b.giveResources("DONE\n");
        b.write();
        EXPECT_EQ(b.answers.shown[0].buttons, (QStringList{"Back up, then erase", "Erase anyway", "Cancel"}));
        EXPECT_EQ(!b.launched.isEmpty(), c.written);
        if (c.written && !c.mountsAtOnce) {  // the offer, left open, goes with the stick and comes back with it
            ASSERT_TRUE(QTest::qWaitFor([&] { return !keeper.working(); }, 10000));
            EXPECT_FALSE(keeper.ready());
            b.answers.leaveOpen = true;
            mounts->plugIn();
            keeper.look();
            ASSERT_TRUE(QTest::qWaitFor([&] { return keeper.ready(); }, 10000));
            const int offer = b.answers.shown.last().id;
            mounts->plugIn(false);
            keeper.look();
            ASSERT_TRUE(QTest::qWaitFor([&] { return !keeper.ready(); }, 10000));
            EXPECT_EQ(b.answers.closed, QList<int>{offer});
            b.answers.leaveOpen = false;
            mounts->plugIn();
            keeper.look();
        }
        const QStringList ends{"Install failed", "Your writing is back", "Putting your writing back failed"};
        ASSERT_TRUE(QTest::qWaitFor(
            [&] { return !keeper.working() && ends.contains(b.answers.shown.last().title); }, 20000));
        EXPECT_EQ(b.answers.shown.last().title, ends[c.putBack ? 1 : c.written ? 2 : 0]);

        QList<KeptSet> kept = KeepWriting::load(keptRoot);
        ASSERT_EQ(kept.size(), c.written && !c.putBack ? 1 : 0);
        for (const std::string& rel : own) {
            std::string want = slurp(oldStick / rel);
            if (c.putBack) {
                EXPECT_EQ(slurp(newStick / rel), want) << rel;
            }
            if (!kept.isEmpty()) {
                EXPECT_EQ(slurp(kept[0].folder.toStdString() + "/files/" + rel), want) << rel;
            }
        }
        if (c.putBack) {
            EXPECT_EQ(KeepWriting::documentCount(QString::fromStdString(newStick.path())), 3);
        }
        if (c.newStickHasStats) {  // left alone, and offered again the next time the program starts
            EXPECT_EQ(slurp(newStick / "stats.db"), "the new stick's own");
            WritingKeeper next;
            next.setMounts(mounts);
            next.setKeptRoot(keptRoot);
            ASSERT_EQ(next.pending().size(), 1);
            next.look();
            EXPECT_TRUE(QTest::qWaitFor([&] { return next.ready(); }, 10000));
        }
    }
}

// What is counted and kept is read off the stick without following a link: a stick must not
// be able to point the keep at the user's own files.
TEST(FlashKeep, OwnFilesAndDocumentsNeverThroughLinks) {
    TempDir stick, elsewhere;
    for (std::string rel : {".qm/drive.key", ".qm/sub/upload", "stats.db", "settings.cfg", "Novel.md", "notes.txt",
                            ".hidden", "fonts/a.ttf"})
        spit(stick / rel, rel);
    spit(elsewhere / "secret", "not the stick's");
    std::filesystem::create_symlink(elsewhere / "secret", stick / "stats.bak");
    std::filesystem::create_symlink(elsewhere / "secret", stick / "Linked.md");
    std::filesystem::create_symlink(elsewhere.path(), stick / ".qm/outside");
    const QString root = QString::fromStdString(stick.path());
    QStringList own = KeepWriting::ownFiles(root);
    own.sort();
    EXPECT_EQ(own, (QStringList{".qm/drive.key", ".qm/sub/upload", "settings.cfg", "stats.db"}));
    EXPECT_EQ(KeepWriting::documentCount(root), 2);

    std::filesystem::remove_all(stick / ".qm");
    std::filesystem::create_directory_symlink(elsewhere.path(), stick / ".qm");
    EXPECT_EQ(KeepWriting::ownFiles(root), (QStringList{"stats.db", "settings.cfg"}));
}

QPushButton* button(QWidget* w, const QString& prefix) {
    for (QPushButton* b : w->findChildren<QPushButton*>())
        if (b->text().startsWith(prefix)) return b;
    return nullptr;
}

QMessageBox* openBox(QWidget* view) {
    QMessageBox* box = nullptr;
    EXPECT_TRUE(QTest::qWaitFor([&] { return (box = view->findChild<QMessageBox*>()) && box->isVisible(); }, 5000));
    return box;
}

// The view shows the model's questions without blocking: the confirmation's buttons read as
// the model wrote them ("&" shown, no shortcut) and the one pressed goes back to the model.
// Scans change the picker's rows, not its choice; a write locks the controls.
TEST(FlashView, DialogsPickerAndAWriteLockingTheControls) {
    HeldWrite b;
    b.answers.leaveOpen = true;  // the view answers
    FlashView view(&b.model);
    view.show();  // scans: the list below changes only after that scan has read it
    ASSERT_TRUE(QTest::qWaitFor([&] { return !b.model.scanning(); }, 10000));
    QComboBox* picker = view.findChild<QComboBox*>();
    QProgressBar* progress = view.findChild<QProgressBar*>();
    EXPECT_TRUE(progress->isHidden());

    // No drive listed: the hint asks for one the image fits on, 1.5 GiB by its gzip trailer, or
    // over 4 GiB, which its trailer cannot tell.
    b.list = {kReader};
    const struct { std::string image; const char* hint; } images[] = {
        {std::string(28, '\0') + std::string("\0\0\0\x60", 4), "at least 2 GB"},
        {slurp(cached_zero_image(kOver4GiB)), "at least 5 GB"}};
    for (const auto& c : images) {
        spit(b.res / "images/uefi_fat32.img.gz", c.image);
        b.model.refresh();
        const QString want = QString("Plug in a USB stick or SD card of %1, then press Refresh.").arg(c.hint);
        EXPECT_TRUE(QTest::qWaitFor([&] { return view.noDriveHint() == want; }, 30000))
            << view.noDriveHint().toStdString();
    }
    EXPECT_EQ(picker->currentIndex(), -1);  // which shows:
    EXPECT_EQ(picker->placeholderText(), "No USB drives found");

    b.list = {kReader, {"sdf", "Reader 2", 0}, kStick};
    b.model.refresh();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !b.model.scanning(); }, 10000));
    EXPECT_EQ(view.noDriveHint(), "");
    EXPECT_EQ(button(&view, "Show all")->text(), "Show all (2)");
    button(&view, "Show all")->click();
    EXPECT_EQ(button(&view, "Hide empty")->text(), "Hide empty");
    EXPECT_EQ(picker->count(), 3);
    button(&view, "Hide empty")->click();
    b.list = {kTwin, kStick, kDisk};  // rows come before and after the chosen one
    b.model.refresh();
    ASSERT_TRUE(QTest::qWaitFor([&] { return picker->count() == 3; }, 10000));
    EXPECT_EQ(picker->currentText(), driveLine(kStick));

    for (int answer : {0, 1}) {  // Cancel, then Erase & Flash
        button(&view, "Install")->click();
        EXPECT_FALSE(button(&view, "Install")->isEnabled());
        QMessageBox* box = openBox(&view);
        ASSERT_TRUE(box);
        QStringList shown;
        for (QAbstractButton* button : box->buttons()) {  // as drawn: "&&" is one "&", a lone "&" marks a key
            EXPECT_TRUE(QKeySequence::mnemonic(button->text()).isEmpty()) << button->text().toStdString();
            shown << button->text().replace("&&", QChar(1)).remove('&').replace(QChar(1), '&');
        }
        EXPECT_EQ(shown.indexOf("Cancel"), box->buttons().indexOf(box->escapeButton()));
        box->buttons()[shown.indexOf(answer ? "Erase & Flash" : "Cancel")]->click();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !view.findChild<QMessageBox*>(); }, 5000));
        EXPECT_EQ(b.model.busy(), answer == 1);
    }
    EXPECT_FALSE(progress->isHidden());
    for (QWidget* w : std::initializer_list<QWidget*>{picker, button(&view, "Refresh"), button(&view, "Install"),
                                                       view.findChild<QGroupBox*>()})
        EXPECT_FALSE(w->isEnabled());
    b.release();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !b.model.busy(); }, 10000));
    EXPECT_TRUE(button(&view, "Install")->isEnabled());
    EXPECT_FALSE(progress->isHidden());  // a failed write keeps its bar
}

TEST(WriterProtocol, ReportsAndWhatIsNotOne) {
    const struct { const char* line; WriterLine::Kind kind; double done, total; const char* message; } cases[] = {
        {"P 5 10", WriterLine::Progress, 5, 10, ""},  {" P  20   10 \r\n", WriterLine::Progress, 20, 10, ""},
        {"V 3 4", WriterLine::Verified, 3, 4, ""},    {"P 1 0", WriterLine::Other, 0, 0, ""},
        {"C 7 308", WriterLine::Checked, 7, 308, ""}, {"C 1 0", WriterLine::Other, 0, 0, ""},
        {"P 1 2 3", WriterLine::Other, 0, 0, ""},     {"P -1 2", WriterLine::Other, 0, 0, ""},
        {"P 1e5 9", WriterLine::Other, 0, 0, ""},     {"P 99999999999999999999 9", WriterLine::Other, 0, 0, ""},
        {"P nan 9", WriterLine::Other, 0, 0, ""},     {"DONE\n", WriterLine::Done, 0, 0, ""},
        {"DONE!", WriterLine::Other, 0, 0, ""},       {"ERR\t  no space ", WriterLine::Error, 0, 0, "no space"},
        {"ERRATIC", WriterLine::Error, 0, 0, "ATIC"}, {"p 1 2", WriterLine::Other, 0, 0, ""},
    };
    for (const auto& c : cases) {
        WriterLine r = parseWriterLine(c.line);
        EXPECT_EQ(std::tuple(r.kind, r.done, r.total, r.message),
                  std::tuple(c.kind, c.done, c.total, std::string(c.message)))
            << c.line;
    }
}

// udev's links: the bus's own name for a disk first, never a partition's or a wwn/eui number's
// when another is there; ties go to the first by name.
TEST(DiskLinks, EachDiskByItsBestLink) {
    TempDir dir;
    for (std::string link : {"wwn-0x50 sda", "ata-SSD_850 sda", "ata-SSD_850-part1 sda1", "wwn-0x60 sdb",
                             "usb-Fit-part1 sdb1", "usb-Fit sdb", "scsi-0ATA_X sdc", "ata-X sdc", "ata-X-part2 sdc",
                             "nvme-eui.26 nvme0n1", "mmc-SD32G mmcblk0"}) {
        const size_t blank = link.find(' ');
        std::filesystem::create_symlink("../../" + link.substr(blank + 1), dir / link.substr(0, blank));
    }
    spit(dir / "not-a-link", "");
    const QHash<QString, QString> best = DiskLinks::best(QString::fromStdString(dir.path()));
    QStringList found;
    for (auto it = best.begin(); it != best.end(); ++it) found << it.key() + " " + it.value().section('/', -1);
    found.sort();
    EXPECT_EQ(found.join(", "), "mmcblk0 mmc-SD32G, nvme0n1 nvme-eui.26, sda ata-SSD_850, sda1 ata-SSD_850-part1, "
                                "sdb usb-Fit, sdb1 usb-Fit-part1, sdc ata-X");
    EXPECT_EQ(best.value("sdb"), QString::fromStdString(dir / "usb-Fit"));
}

}  // namespace
