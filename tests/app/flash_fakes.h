// Stand-ins for what the flash model meets outside: scripted drives, dialogs answered by the
// test, and a write that stays under way until the test lets it end.
#pragma once
#include <sys/stat.h>

#include <QTest>
#include <atomic>
#include <future>

#include "flash_model.h"
#include "temp_dir.h"

struct FakeScanner : DiskScanner {
    QList<USBDrive>* drives;
    std::atomic<int>* unmounts;
    FakeScanner(QList<USBDrive>* d, std::atomic<int>* u = nullptr) : drives(d), unmounts(u) {}
    QList<USBDrive> externalDrives() override { return *drives; }
    bool unmountDisk(const QString&) override {
        if (unmounts) ++*unmounts;
        return true;
    }
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

// Writes the bundled image and the writer a resource folder needs; the writer prints lines and
// ends with exitStatus.
inline void giveResources(const TempDir& res, const QString& image, const std::string& lines, int exitStatus = 0) {
    spit(res / ("images/" + image.toStdString() + ".img.gz"), "image");
    spit(res / "lines", lines);
    spit(res / "qm-writer", "#!/bin/sh\ncat \"$(dirname \"$0\")/lines\"\nexit " + std::to_string(exitStatus) + "\n");
    chmod((res / "qm-writer").c_str(), 0755);
}

// A model over one stick whose write, once started, stays under way until release().
struct HeldWrite {
    QList<USBDrive> list{{"sdb", "Cruzer Fit", 16000000000, "/dev/sdb"}};
    FlashModel model{std::make_unique<FakeScanner>(&list)};
    Answers answers;
    TempDir res;
    std::promise<void> gate;
    std::shared_future<void> held = gate.get_future().share();

    HeldWrite() {
        model.setDialogs(&answers);
        model.setResourceFolder(QString::fromStdString(res.path()));
        giveResources(res, model.resourceName(), "");
        model.setLauncher([this](auto&&...) { return held.wait(), ElevatedRun{kAuthCanceled}; });
    }
    ~HeldWrite() { release(); }  // before the model waits for its write
    bool start() {
        model.refresh();
        return QTest::qWaitFor([this] { return !model.scanning(); }, 10000) && (model.flash(), model.busy());
    }
    void release() {
        if (held.wait_for(std::chrono::seconds(0)) != std::future_status::ready) gate.set_value();
    }
};
