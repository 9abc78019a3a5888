// Waiting on this thread for a network answer, as the service clients do on their worker threads.
#pragma once
#include <atomic>
#include <memory>

class QNetworkReply;

// Runs reply to its end. The stopping flag, when given, is looked at a few times a second so that
// going away never waits out a slow server; limitMs, when above 0, bounds the whole exchange.
void waitForReply(QNetworkReply* reply, const std::shared_ptr<const std::atomic_bool>& stopping, int limitMs = 0);
