#pragma once

#include <QCoreApplication>
#include <QEvent>
#include <QObject>
#include <QThread>
#include <functional>
#include <memory>
#include <utility>

#include "oru/executor.h"
#include "oru/task_guard.h"

namespace oru {

/// Posts to the event loop of a Qt thread, as posted events. Qt 5 or 6; needs Core only. Qt does
/// not let exceptions through its loop: one from a task ends the process through `eventlog_die`.
/// Priorities are ignored.
///
/// Destroy it on that thread, in a task of its own if need be, or after the thread has ended. The
/// destructor destroys tasks that have not run.
class qt_executor final : public executor {
public:
    /// `thread` is the one whose event loop runs the tasks.
    explicit qt_executor(QThread* thread = QThread::currentThread())
        : receiver_(std::make_unique<receiver>()) {
        receiver_->moveToThread(thread);
    }
    /// Destroys the receiver, and with it the events of waiting tasks. Destroying a task may post
    /// another: the pointer is null by then, and `post` drops it.
    ~qt_executor() override { receiver_.reset(); }
    qt_executor(const qt_executor&) = delete;
    qt_executor& operator=(const qt_executor&) = delete;

    void post(std::function<void()> task, int /*priority*/) override {
        if (receiver_) QCoreApplication::postEvent(receiver_.get(), new call(std::move(task)));
    }

private:
    struct call final : QEvent {
        explicit call(std::function<void()> posted) : QEvent(User), task(std::move(posted)) {}
        const std::function<void()> task;
    };
    struct receiver final : QObject {
        bool event(QEvent* event) override {
            const auto* posted = dynamic_cast<const call*>(event);
            if (posted == nullptr) return QObject::event(event);
            run_guarded(posted->task);
            return true;
        }
    };

    std::unique_ptr<receiver> receiver_;
};

}  // namespace oru
