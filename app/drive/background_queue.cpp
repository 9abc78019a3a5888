#include "background_queue.h"

BackgroundQueue::BackgroundQueue(int threads, QObject* parent) : QObject(parent) {
    connect(this, &BackgroundQueue::finished, this, &BackgroundQueue::deliverFinished, Qt::QueuedConnection);
    for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { serve(); });
}

BackgroundQueue::~BackgroundQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        jobs_.clear();
    }
    wake_.notify_all();
    for (std::thread& t : threads_) t.join();
}

void BackgroundQueue::submit(Job job) {
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
}

void BackgroundQueue::serve() {
    for (;;) {
        Job job;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (stopping_) return;
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        deliver(job());
    }
}

void BackgroundQueue::deliver(std::function<void()> onOwnerThread) {
    {
        std::lock_guard lock(mutex_);
        if (stopping_) return;
        results_.push_back(std::move(onOwnerThread));
    }
    emit finished();
}

void BackgroundQueue::deliverFinished() {
    std::deque<std::function<void()>> ready;
    {
        std::lock_guard lock(mutex_);
        ready.swap(results_);
    }
    for (std::function<void()>& deliver : ready) deliver();
}
