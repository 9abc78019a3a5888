// The update service's two exchanges, made on the calling thread, which waits for each: the
// check of the release feed and the download of an archive. Lives and dies on one worker thread
// (the Updater runs it off the main thread; the command-line self-check runs it directly).
#pragma once
#include <QString>
#include <atomic>
#include <functional>
#include <memory>

#include "update_identity.h"
#include "update_info.h"
#include "verified_archive.h"

class QNetworkAccessManager;

struct DownloadOutcome {
    std::shared_ptr<VerifiedArchive> archive;  // set when every check passed
    QString failure;                           // else the text to show
};

class UpdateSession {
public:
    // The stopping flag, when given, cuts a transfer short (the owner is going away).
    explicit UpdateSession(UpdateIdentity id, std::shared_ptr<const std::atomic_bool> stopping = {});
    ~UpdateSession();

    UpdateCheck check();
    // Downloads info's archive into a private folder and checks it. progress gets the fraction
    // that has arrived (0...1, whole percents only); verifying is called once the transfer ends
    // and the checks begin.
    DownloadOutcome download(const UpdateInfo& info, const std::function<void(double)>& progress = {},
                             const std::function<void()>& verifying = {});

private:
    QNetworkAccessManager& network();

    UpdateIdentity id_;
    std::shared_ptr<const std::atomic_bool> stopping_;
    std::unique_ptr<QNetworkAccessManager> network_;
};
