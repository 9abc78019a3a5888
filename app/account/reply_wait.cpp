#include "reply_wait.h"

#include <QEventLoop>
#include <QNetworkReply>
#include <QTimer>

void waitForReply(QNetworkReply* reply, const std::shared_ptr<const std::atomic_bool>& stopping, int limitMs) {
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer watch;
    if (stopping) {
        QObject::connect(&watch, &QTimer::timeout, reply, [&] {
            if (stopping->load()) reply->abort();
        });
        watch.start(100);
    }
    QTimer limit;
    if (limitMs > 0) {
        limit.setSingleShot(true);
        QObject::connect(&limit, &QTimer::timeout, reply, &QNetworkReply::abort);
        limit.start(limitMs);
    }
    if (!reply->isFinished()) loop.exec();
}
