// The account service's client: its requests run one at a time, in the order asked, on a thread
// of its own, and each result is handed back on the thread the client lives on (the main
// thread). Every operation starts from the sign-in stored at that moment for the service's
// address, so a sign-in made by one model is what the next request of another one uses.
#pragma once
#include <QObject>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>

#include "background_queue.h"
#include "cloud_session.h"
#include "store.h"

class CloudClient : public QObject {
    Q_OBJECT
public:
    explicit CloudClient(QObject* parent = nullptr);
    // Cuts a request under way short and delivers nothing more.
    ~CloudClient() override;

    void signIn(const QString& email, const QString& password, std::function<void(std::optional<QString>)> done);
    void signedIn(std::function<void(bool)> done);
    void registerDrive(const QString& id, const QString& uploadKey, const QString& label,
                       std::function<void(CloudSession::Registration)> done);
    // Opens the drive at root and sends its signed statistics.
    void upload(const QString& root, std::function<void(CloudSession::Upload)> done);

    // Several requests in one go, on the client's thread: work gets a session holding the stored
    // sign-in; done(result) runs on the client's thread.
    template <typename Work, typename Deliver>
    void run(Work work, Deliver done) {
        background_.post(
            [work = std::move(work), stopping = stopping_]() mutable {
                QString base = CloudSession::baseURL();
                CloudSession session(Store::token(base), base, stopping);
                return work(session);
            },
            std::move(done));
    }

private:
    std::shared_ptr<std::atomic_bool> stopping_ = std::make_shared<std::atomic_bool>(false);
    BackgroundQueue background_;  // last: stopped first
};
