// Background work for a model: jobs run on the queue's own threads, and each result is handed
// back to the thread the queue lives on (the main thread), in the order the jobs finish.
// Results travel through the queue's own lock rather than through Qt's event queue, so every
// hand-over is one that ThreadSanitizer can see.
#pragma once
#include <QObject>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <vector>

class BackgroundQueue : public QObject {
    Q_OBJECT
public:
    explicit BackgroundQueue(int threads = 1, QObject* parent = nullptr);
    // Drops the jobs that have not started, waits for the running ones and delivers nothing more.
    ~BackgroundQueue() override;
    BackgroundQueue(const BackgroundQueue&) = delete;
    BackgroundQueue& operator=(const BackgroundQueue&) = delete;

    // work() runs on a worker thread; deliver(result) runs later on this queue's thread.
    template <typename Work, typename Deliver>
    void post(Work work, Deliver deliver) {
        using Result = std::invoke_result_t<Work&>;
        submit([work = std::move(work), deliver = std::move(deliver)]() mutable -> std::function<void()> {
            auto result = std::make_shared<Result>(work());
            return [deliver, result] { deliver(std::move(*result)); };
        });
    }

    // From inside a job: runs onOwnerThread on this queue's thread soon, before the job's own
    // result. How a long job reports progress.
    void deliver(std::function<void()> onOwnerThread);

signals:
    void finished();  // a result is waiting; queued to this object's thread

private:
    using Job = std::function<std::function<void()>()>;
    void submit(Job job);
    void serve();
    void deliverFinished();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> jobs_;
    std::deque<std::function<void()>> results_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};
