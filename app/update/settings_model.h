// The Settings tab's model for updates: the running version, the automatic-check setting, the
// update found, and the state of checking and installing that the tab, the banner over the tabs
// and the release notes show. Fields change on the main thread only; each change is announced by
// changed().
#pragma once
#include <QObject>
#include <QString>
#include <QStringList>
#include <functional>
#include <optional>

#include "update_info.h"
#include "updater.h"

class SettingsModel : public QObject {
    Q_OBJECT
public:
    // Ends the process once the new copy runs (the window's quit, by default).
    using Exit = std::function<void()>;
    // True while the program must not restart: a drive is being written.
    using RestartHold = std::function<bool()>;
    // Where the window stands now, for the new copy to open there (RestartState::encode).
    using RestartPlace = std::function<QString()>;
    static const QString kWaitingForWrite;

    explicit SettingsModel(QObject* parent = nullptr);
    SettingsModel(UpdateIdentity id, std::optional<QString> justUpdatedTo, QObject* parent = nullptr);

    const QString& version() const { return updater_.identity().version; }
    bool automatic() const { return automatic_; }
    const std::optional<UpdateInfo>& found() const { return found_; }
    bool bannerDismissed() const { return bannerDismissed_; }
    bool showingNotes() const { return showingNotes_; }
    const QString& status() const { return status_; }
    bool busy() const { return busy_; }
    // Some exchange with the update service, the quiet launch check included, has not landed.
    bool working() const { return busy_ || launchCheck_; }
    // The banner over the tabs is shown.
    bool bannerShown() const { return found_ && !bannerDismissed_; }
    // The new copy is being put in place; the program restarts when that is done.
    bool installing() const { return installing_; }
    // Why the last attempt to install failed, for the banner (the Settings tab, where status is
    // shown, may not be in view); empty when none did since the update was found.
    const QString& installProblem() const { return installProblem_; }

    void setAutomatic(bool on);
    void dismissBanner();
    void setShowingNotes(bool on);
    void setExit(Exit exit) { exit_ = std::move(exit); }
    void setRestartHold(RestartHold hold) { hold_ = std::move(hold); }
    void setRestartPlace(RestartPlace place) { place_ = std::move(place); }
    // What the new copy is started with after "--updated VERSION" (by default this process's own
    // arguments, RestartState::carriedArguments).
    void setRestartArguments(QStringList arguments) { restartArguments_ = std::move(arguments); }
    // What held the restart has ended: an update waiting for it is installed now.
    void holdReleased();

    void checkOnLaunch();
    void checkNow();
    void skip();
    void updateNow();

signals:
    void changed();

private:
    QString idleStatus() const;
    void offer(const UpdateInfo& info);
    void fail(const QString& message);
    void install(const UpdateInfo& info, std::shared_ptr<VerifiedArchive> archive);

    bool automatic_;
    std::optional<UpdateInfo> found_;
    bool bannerDismissed_ = false;
    bool showingNotes_ = false;
    std::optional<QString> justUpdatedTo_;
    QString status_;
    bool busy_ = false;
    bool launchCheck_ = false;
    bool installing_ = false;
    QString installProblem_;
    Exit exit_;
    RestartHold hold_;
    RestartPlace place_;
    QStringList restartArguments_;
    std::function<void()> waiting_;  // the install held back
    Updater updater_;  // last: stopped first
};
