// Updates: the check of the release feed, the daily background check, the download with its
// checks, and the install. The exchanges run one at a time on a thread of their own; every result
// and every progress report is handed back on the main thread.
#pragma once
#include <QDateTime>
#include <QObject>
#include <QStringList>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>

#include "background_queue.h"
#include "update_identity.h"
#include "update_info.h"
#include "update_session.h"

// The per-user settings the updates keep.
namespace UpdateSettings {
bool automatic();  // "updateAutomatic", on when absent
void setAutomatic(bool on);
std::optional<QDateTime> lastChecked();  // "updateLastChecked"
void setLastChecked(const QDateTime& when);
QString skippedVersion();  // "updateSkippedVersion"
void setSkippedVersion(const QString& version);
}  // namespace UpdateSettings

struct InstallOutcome {
    std::optional<QString> failure;  // none: the new copy runs and this one should end
    std::optional<QString> reveal;   // a file to show the user (the verified archive left in place)
    qint64 relaunched = 0;           // the new copy's process id
};

// How the new copy is started and how long it has to show its window.
struct RestartRequest {
    QStringList arguments;          // after "--updated VERSION" (RestartState::carriedArguments)
    QString windowPlace;            // RestartState::encode of the window now; empty: none
    int startDeadlineMs = 30'000;   // from its start to its first painted window
};

// Unpacks the verified archive beside the running bundle, checks what came out, swaps the two
// folders in one step and starts the new copy with "--updated VERSION". The copy that ran before
// is removed only once the new one has painted its window; a new copy that ends first, or shows
// nothing by the deadline, is stopped and the old one swapped back. Platform code.
InstallOutcome installBundle(const UpdateIdentity& id, const UpdateInfo& info, VerifiedArchive& archive,
                             const RestartRequest& restart = {});

class Updater : public QObject {
    Q_OBJECT
public:
    explicit Updater(UpdateIdentity id = UpdateIdentity::current(), QObject* parent = nullptr);
    // Cuts a transfer under way short and delivers nothing more.
    ~Updater() override;

    const UpdateIdentity& identity() const { return id_; }

    // Asks the feed; an answer from the server (up to date or available) notes the time.
    void check(std::function<void(UpdateCheck)> done);
    // The daily check: only when automatic checks are on and the last answer is a day old or
    // more (false: nothing asked). Only a found update is passed on; an answer without one, and
    // every failure, land as none, without a word.
    bool checkInBackground(std::function<void(std::optional<UpdateInfo>)> landed);
    void download(const UpdateInfo& info, std::function<void(double)> progress, std::function<void()> verifying,
                  std::function<void(DownloadOutcome)> done);
    void install(const UpdateInfo& info, std::shared_ptr<VerifiedArchive> archive,
                 std::function<void(InstallOutcome)> done, RestartRequest restart = {});

    // The value after "--updated" on a command line, when there is one.
    static std::optional<QString> justUpdatedTo(const QStringList& arguments);
    // The headless self-check of "--check-update" / "--fetch-update": prints its report and
    // returns the exit status.
    static int runCommandLineCheck(const QStringList& arguments);

private:
    template <typename Work, typename Deliver>
    void run(Work work, Deliver done);

    UpdateIdentity id_;
    std::shared_ptr<std::atomic_bool> stopping_ = std::make_shared<std::atomic_bool>(false);
    BackgroundQueue background_;  // last: stopped first
};
