#pragma once

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QThread>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "oru/executor.h"
#include "oru/task_guard.h"
#include "oru/task_queue.h"

namespace oru {

/// Runs tasks in the event loop of a Qt thread, as posted events. It needs only Core, of Qt 5 or 6.
/// If a task throws, the process ends through `eventlog_die`, since Qt's loop cannot pass on an
/// exception. Priorities are ignored.
///
/// Destroy the executor on that thread (one of its own tasks may do that), or after the thread has
/// ended. The destructor destroys the tasks that have not run.
class qt_executor final : public executor {
public:
    /// `thread` is the one whose event loop runs the tasks.
    explicit qt_executor(QThread* thread = QThread::currentThread())
        : receiver_(std::make_unique<receiver>(*this)) {
        receiver_->moveToThread(thread);
    }
    /// Destroying a task may post another: the receiver is null by then, and `push` drops it.
    ~qt_executor() override {
        receiver_.reset();
        tasks_.clear();
    }
    qt_executor(const qt_executor&) = delete;
    qt_executor& operator=(const qt_executor&) = delete;

    void post(std::function<void()> task, int /*priority*/) override { push(std::move(task)); }
    void post_all(std::vector<std::function<void()>> tasks, int /*priority*/) override {
        push(std::move(tasks));
    }

private:
    static constexpr auto turn = QEvent::User;

    struct receiver final : QObject {
        explicit receiver(qt_executor& owner) : owner(owner) {}
        bool event(QEvent* event) override {
            if (event->type() != turn) return QObject::event(event);
            const auto next = owner.tasks_.take();
            if (next->more) owner.ask();
            run_guarded(next->task);  // may destroy the executor, and so this receiver
            return true;
        }
        qt_executor& owner;
    };

    template <typename Tasks>
    void push(Tasks tasks) {
        if (receiver_ && tasks_.push(std::move(tasks))) ask();
    }
    void ask() { QCoreApplication::postEvent(receiver_.get(), new QEvent(turn)); }

    task_queue tasks_;
    std::unique_ptr<receiver> receiver_;
};

}  // namespace oru
