#include "cloud_client.h"

#include "drive.h"

CloudClient::CloudClient(QObject* parent) : QObject(parent) {}

CloudClient::~CloudClient() { stopping_->store(true); }

void CloudClient::signIn(const QString& email, const QString& password,
                         std::function<void(std::optional<QString>)> done) {
    run([email, password](CloudSession& s) { return s.signIn(email, password); }, std::move(done));
}

void CloudClient::signedIn(std::function<void(bool)> done) {
    run([](CloudSession& s) { return s.signedIn(); }, std::move(done));
}

void CloudClient::registerDrive(const QString& id, const QString& uploadKey, const QString& label,
                                std::function<void(CloudSession::Registration)> done) {
    run([id, uploadKey, label](CloudSession& s) { return s.registerDrive(id, uploadKey, label); }, std::move(done));
}

void CloudClient::upload(const QString& root, std::function<void(CloudSession::Upload)> done) {
    run(
        [root](CloudSession& s) {
            QmError error = QmError::ok;
            std::unique_ptr<Drive> drive = Drive::open(root, &error);
            if (!drive) return CloudSession::Upload{false, qmErrorMessage(error)};
            return s.upload(*drive);
        },
        std::move(done));
}
