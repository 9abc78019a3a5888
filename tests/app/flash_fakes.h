// Stand-ins for what the flash model meets outside: scripted drives, dialogs answered by the
// test, and a write that stays under way until the test lets it end.
#pragma once
#include <sys/stat.h>

#include <QTest>
#include <atomic>
#include <functional>
#include <future>
#include <mutex>

#include "flash_model.h"
#include "stick_mounts.h"
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

// Folders in place of a stick's mounted partitions: what is mounted before the erase, and the
// new data partition once it is mounted (by the app, or by plugging the stick in again).
struct FakeMounts : StickMounts {
    std::mutex lock;  // the keeper asks from its worker thread
    QList<Volumes::Mount> before;
    std::optional<QString> data;  // the data partition's root while mounted
    bool canMount = true;         // mountData() mounts `data`; else it stays unmounted
    bool mountedNow = false;
    QList<Volumes::Mount> mounted(const QString&) override {
        std::lock_guard hold(lock);
        return before;
    }
    std::optional<QString> dataRoot(const QString&) override {
        std::lock_guard hold(lock);
        return mountedNow ? data : std::nullopt;
    }
    std::optional<QString> mountData(const QString&) override {
        std::lock_guard hold(lock);
        mountedNow = canMount;
        return mountedNow ? data : std::nullopt;
    }
    void plugIn(bool in = true) {
        std::lock_guard hold(lock);
        mountedNow = in;
    }
};

// Answers the model's and its keeper's questions as they are asked, unless told to leave them open.
struct Answers {
    QList<FlashDialog> shown;
    QList<int> closed;  // questions the model took back
    int answer = 1;
    std::function<int(const FlashDialog&)> decide;  // overrides answer when set
    QString folder;                                 // what a folder dialog returns
    bool leaveOpen = false;
    void attach(FlashModel& m) {
        attachTo(&m);
        attachTo(&m.keeper());
        QObject::connect(&m, &FlashModel::folderRequested, [this, &m](int id, const QString&) {
            if (!leaveOpen) m.answerFolder(id, folder);
        });
    }
    template <typename Asker>  // the model or its keeper
    void attachTo(Asker* asker) {
        QObject::connect(asker, &Asker::dialogRequested, [this, asker](const FlashDialog& d) {
            shown << d;
            if (d.id != 0 && !leaveOpen) asker->answer(d.id, decide ? decide(d) : answer);
        });
        QObject::connect(asker, &Asker::dialogClosed, [this](int id) { closed << id; });
    }
};

inline std::string script(const std::string& path, const std::string& body) {
    spit(path, "#!/bin/sh\n" + body + "\n");
    chmod(path.c_str(), 0755);
    return path;
}

// Writes the bundled image and the writer a resource folder needs; the writer prints lines and
// ends with exitStatus.
inline void giveResources(const TempDir& res, const QString& image, const std::string& lines, int exitStatus = 0) {
    spit(res / ("images/" + image.toStdString() + ".img.gz"), "image");
    spit(res / "lines", lines);
    script(res / "qm-writer", "cat \"$(dirname \"$0\")/lines\"\nexit " + std::to_string(exitStatus));
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
        answers.attach(model);
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
