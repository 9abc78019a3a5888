// The Install tab's model: the drive list and its texts, the confirmation and missing-resource
// dialogs, and whole writes against a stand-in writer that prints the protocol's lines; the
// protocol's line reader and the launcher's statuses.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QComboBox>
#include <QGroupBox>
#include <QPushButton>
#include <QTest>
#include <future>

#include "flash_model.h"
#include "flash_view.h"
#include "launcher.h"
#include "temp_dir.h"

namespace {

struct FakeScanner : DiskScanner {
    QList<USBDrive>* drives;
    explicit FakeScanner(QList<USBDrive>* d) : drives(d) {}
    QList<USBDrive> externalDrives() override { return *drives; }
    bool unmountDisk(const QString&) override { return true; }
    QString rawDevicePath(const QString& id) const override { return "/dev/" + id; }
    QString wholeDiskPath(const QString& id) const override { return "/dev/" + id; }
};

struct Answers : FlashDialogs {
    QList<FlashDialog> shown;
    int answer = 1;
    int ask(const FlashDialog& d) override {
        shown << d;
        return d.buttons.size() > 1 ? answer : 0;
    }
};

// A model over scripted drives with a resource folder whose writer prints `lines`.
struct Bench {
    QList<USBDrive> list;
    FlashModel m{std::make_unique<FakeScanner>(&list)};
    Answers answers;
    TempDir res;
    QStringList statuses;
    Bench() {
        m.setDialogs(&answers);
        m.setResourceFolder(QString::fromStdString(res.path()));
        m.setLauncher([](const QString& tool, const QString& image, const QString& device, FILE** out) {
            return qm_exec_through(nullptr, qPrintable(tool), qPrintable(image), qPrintable(device), out);
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
    void giveResources(const std::string& lines, bool image = true, bool writer = true) {
        if (image) spit(res / ("images/" + m.resourceName().toStdString() + ".img.gz"), "image");
        if (!writer) return;
        spit(res / "lines", lines);
        spit(res / "qm-writer", "#!/bin/sh\nexec cat \"$(dirname \"$0\")/lines\"\n");
        chmod((res / "qm-writer").c_str(), 0755);
    }
    void write() {
        m.flash();
        ASSERT_TRUE(QTest::qWaitFor([this] { return !m.busy(); }, 10000));
    }
};

const USBDrive kReader{"sdc", "Card Reader", 0}, kStick{"sdb", "Cruzer Fit", 16000000000},
    kTwin{"sdd", "Cruzer Fit", 16000000000}, kDisk{"sde", "Backup", 2000000000000};

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
    Bench b;  // a choice survives a refresh while its id is listed
    b.scan({kStick, kDisk});
    b.m.select("sde");
    b.scan({kDisk, kStick, kReader});
    EXPECT_EQ(b.m.selection(), "sde");
    EXPECT_EQ(b.m.hiddenCount(), 1);
    b.scan({kStick});
    EXPECT_EQ(b.m.selection(), "sdb");
    EXPECT_EQ(driveLine(kStick), "Cruzer Fit  (14.9 GB)   [sdb]");
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
                                               {"Cancel", "Erase & Flash"}}));
    EXPECT_FALSE(b.m.busy());
    b.answers.answer = 1;
    b.m.flash();
    EXPECT_EQ(b.answers.shown.last().text, "Bundled image 'bios_exfat' is missing from this app.");
    b.giveResources("", true, false);
    b.m.flash();
    EXPECT_EQ(b.answers.shown.last().text, "The privileged writer is missing from this app.");
    EXPECT_EQ(b.answers.shown.last().title, "Install failed");
    EXPECT_FALSE(b.m.busy());
}

TEST(FlashWrite, TheWritersLinesDecideTheOutcome) {
    const std::string longLine(2000, 'x');
    const struct { std::string lines; QString status, dialog; } cases[] = {
        {"P 0 2000000\nP 1048575 2000000\nV 2000000 2000000\nDONE\n", "Done — you can remove the drive.",
         "Quillmate was written successfully.\n\nBoot the target machine from this USB."},
        {"ERR first\nDONE\n", "Done — you can remove the drive.", "Quillmate was written successfully.\n\nBoot the target machine from this USB."},
        {"ERR Permission denied\n", "Failed: Permission denied",
         "Linux denied writing to the drive.\n\n• If it's an SD card, slide the write-protect (lock) switch on the side "
         "OFF.\n• Unmount the drive in Disk Utility and try again.\n\n(Permission denied)"},
        {"", "Failed: the write did not complete.",
         "The write did not complete.\n\nMake sure the drive is plugged in and not write-protected, then try again."},
        {"ERR one\nP 1 0\nP 1 2 3\ngarbage\n" + longLine + "DONE\nERR  two \n", "Failed: two",
         "two\n\nMake sure the drive is plugged in and not write-protected, then try again."},
    };
    for (const auto& c : cases) {
        Bench b;
        b.scan({kStick});
        b.giveResources(c.lines);
        b.write();
        EXPECT_EQ(b.m.status(), c.status);
        ASSERT_EQ(b.answers.shown.size(), 2) << c.status.toStdString();
        EXPECT_EQ(b.answers.shown[1].text, c.dialog);
        if (c.status.startsWith("Done")) {
            EXPECT_EQ(b.m.progress(), 1.0);
        }
        if (c.lines.starts_with("P 0")) {
            EXPECT_EQ(b.statuses, (QStringList{"", "1 external USB drive(s) found.", "Unmounting volumes…", "Writing… 0 MB",
                                               "Verifying… 1 MB", c.status}));
        }
    }
}

TEST(FlashWrite, PrivilegesCancelledOrRefused) {
    for (int status : {kAuthCanceled, kAuthDenied}) {
        Bench b;
        b.scan({kStick});
        b.giveResources("DONE\n");
        b.m.setLauncher([status](const QString&, const QString&, const QString&, FILE**) { return status; });
        b.write();
        bool cancelled = status == kAuthCanceled;
        EXPECT_EQ(b.m.status(), cancelled ? "Cancelled." : "Failed: could not get administrator privileges.");
        ASSERT_EQ(b.answers.shown.size(), cancelled ? 1 : 2);
        if (!cancelled) {
            EXPECT_EQ(b.answers.shown[1].text, "Linux denied administrator privileges, so the drive can't be written.\n\n"
                                               "Try again and enter an administrator password.");
        }
    }
}

QPushButton* button(QWidget* w, const QString& prefix) {
    for (QPushButton* b : w->findChildren<QPushButton*>())
        if (b->text().startsWith(prefix)) return b;
    return nullptr;
}

TEST(FlashView, ShowAllCountsTheHiddenAndAWriteLocksTheControls) {
    Bench b;
    FlashView view(&b.m);
    b.m.setDialogs(&b.answers);  // the view answers dialogs itself; here the test does
    b.scan({kReader, {"sdf", "Reader 2", 0}, kStick});
    EXPECT_EQ(button(&view, "Show all")->text(), "Show all (2)");
    button(&view, "Show all")->click();
    EXPECT_EQ(button(&view, "Hide empty")->text(), "Hide empty");
    EXPECT_EQ(view.findChild<QComboBox*>()->count(), 3);
    button(&view, "Hide empty")->click();

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    b.giveResources("DONE\n");
    b.m.setLauncher([released](const QString&, const QString&, const QString&, FILE**) {
        released.wait();  // the write stays under way until the test has looked
        return kAuthCanceled;
    });
    button(&view, "Install")->click();
    ASSERT_TRUE(b.m.busy());
    for (QWidget* w : std::initializer_list<QWidget*>{view.findChild<QComboBox*>(), button(&view, "Refresh"),
                                                       button(&view, "Install"), view.findChild<QGroupBox*>()})
        EXPECT_FALSE(w->isEnabled());
    release.set_value();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !b.m.busy(); }, 10000));
    EXPECT_TRUE(button(&view, "Install")->isEnabled());
}

TEST(WriterProtocol, ReportsAndWhatIsNotOne) {
    const struct { const char* line; WriterLine::Kind kind; double done, total; const char* message; } cases[] = {
        {"P 5 10", WriterLine::Progress, 5, 10, ""},  {" P  20   10 \r\n", WriterLine::Progress, 20, 10, ""},
        {"V 3 4", WriterLine::Verified, 3, 4, ""},    {"P 1 0", WriterLine::Other, 0, 0, ""},
        {"P 1 2 3", WriterLine::Other, 0, 0, ""},     {"P -1 2", WriterLine::Other, 0, 0, ""},
        {"P 1e5 9", WriterLine::Other, 0, 0, ""},     {"P 99999999999999999999 9", WriterLine::Other, 0, 0, ""},
        {"P nan 9", WriterLine::Other, 0, 0, ""},     {"DONE\n", WriterLine::Done, 0, 0, ""},
        {"DONE!", WriterLine::Other, 0, 0, ""},       {"ERR\t  no space ", WriterLine::Error, 0, 0, "no space"},
        {"ERRATIC", WriterLine::Error, 0, 0, "ATIC"}, {"p 1 2", WriterLine::Other, 0, 0, ""},
    };
    for (const auto& c : cases) {
        WriterLine r = parseWriterLine(c.line);
        EXPECT_EQ(std::tuple(r.kind, r.done, r.total, r.message), std::tuple(c.kind, c.done, c.total, std::string(c.message)))
            << c.line;
    }
}

TEST(Launcher, ElevatorStatusesAndTheToolsOutput) {
    TempDir dir;
    auto script = [&](const std::string& name, const std::string& body) {
        spit(dir / name, "#!/bin/sh\n" + body + "\n");
        chmod((dir / name).c_str(), 0755);
        return dir / name;
    };
    std::string tool = script("tool", "echo \"P 0 $1$2\"");
    const struct { std::string elevator; int status; } cases[] = {
        {script("dismissed", "exit 126"), kAuthCanceled}, {script("refused", "exit 127"), kAuthDenied},
        {script("elevates", "exec \"$@\""), 0}, {"", 0}, {"/nonexistent/pkexec", kAuthDenied}};
    for (const auto& c : cases) {
        FILE* out = nullptr;
        EXPECT_EQ(qm_exec_through(c.elevator.empty() ? nullptr : c.elevator.c_str(), tool.c_str(), "a", "b", &out), c.status);
        ASSERT_EQ(out != nullptr, c.status == 0);
        if (!out) continue;
        char line[64] = {};
        EXPECT_TRUE(fgets(line, sizeof line, out));
        EXPECT_STREQ(line, "P 0 ab\n");
        fclose(out);
    }
}

}  // namespace
