// The contract of an executor, run against each of the bundled ones.

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <functional>
#include <future>
#include <optional>
#include <set>
#include <thread>

#include "oru/asio_executor.h"
#include "oru/thread_executor.h"
#ifdef ZEL_HTTP_WITH_GLIB
#include "oru/glib_executor.h"
#endif
#ifdef ZEL_HTTP_WITH_QT
#include <QCoreApplication>
#include <QEventLoop>

#include "oru/qt_executor.h"
#endif

// Each `...Loop` is an executor with its loop: `run` returns behind the task that calls `stop`;
// `destroy` leaves no way for a task to run.

struct AsioLoop {
    static constexpr bool nests = false;
    std::unique_ptr<boost::asio::io_context> loop = std::make_unique<boost::asio::io_context>();
    std::optional<oru::asio_executor> executor{*loop};
    void run() const {
        const auto work = boost::asio::make_work_guard(*loop);
        loop->run();
    }
    void stop() const { loop->stop(); }
    void destroy() { loop.reset(); }
};

struct PlainThread {
    static constexpr bool nests = false;
    std::optional<oru::thread_executor> executor{"tasks"};
    std::promise<void> stopped;
    void run() { stopped.get_future().wait(); }
    void stop() { stopped.set_value(); }
    void destroy() { executor.reset(); }
};

#ifdef ZEL_HTTP_WITH_GLIB
struct GlibLoop {
    static constexpr bool nests = true;
    const std::unique_ptr<GMainContext, decltype(&g_main_context_unref)> loop{g_main_context_new(),
                                                                              g_main_context_unref};
    std::optional<oru::glib_executor> executor{loop.get()};
    bool running = false;
    void run() {
        for (running = true; running;) g_main_context_iteration(loop.get(), TRUE);
    }
    void stop() { running = false; }
    void destroy() {
        executor.reset();
        g_main_context_iteration(loop.get(), FALSE);
    }
};
#endif

#ifdef ZEL_HTTP_WITH_QT
struct QtLoop {
    static constexpr bool nests = true;
    int arguments = 0;
    QCoreApplication application{arguments, nullptr};
    std::optional<oru::qt_executor> executor{std::in_place};
    QEventLoop* current = nullptr;
    void run() {
        QEventLoop own;
        QEventLoop* const outer = std::exchange(current, &own);
        own.exec();
        current = outer;
    }
    void stop() const { current->quit(); }
    void destroy() {
        executor.reset();
        QCoreApplication::processEvents();
    }
};
#endif

template <typename Loop>
class Executor : public testing::Test {
protected:
    void post(std::function<void()> task) { loop.executor->post(std::move(task), 0); }
    Loop loop;
};
using Loops = testing::Types<AsioLoop, PlainThread
#ifdef ZEL_HTTP_WITH_GLIB
                             ,
                             GlibLoop
#endif
#ifdef ZEL_HTTP_WITH_QT
                             ,
                             QtLoop
#endif
                             >;
TYPED_TEST_SUITE(Executor, Loops, );

TYPED_TEST(Executor, RunsTasksInOrderOnItsThreadAndNeverInsidePost) {
    std::string order;
    std::set<std::thread::id> threads;
    const auto note = [&](char name) {
        order += name;
        threads.insert(std::this_thread::get_id());
    };
    std::promise<void> posted;
    std::promise<void> runs;
    this->post([&] {
        posted.get_future().wait();
        this->post([&] { note('e'); });
        note('a');
    });
    this->loop.executor->post_all({[&] { note('b'); }, [&] { note('c'); }}, 0);
    this->post([&] { note('d'); });
    this->loop.executor->post_all({}, 0);
    this->loop.executor->post_all({[&] { runs.set_value(); }}, 0);
    posted.set_value();
    std::thread other([&] {  // wakes the loop
        runs.get_future().wait();
        this->post([&] { this->loop.stop(); });
    });
    this->loop.run();
    other.join();
    EXPECT_EQ(order, "abcde");
    EXPECT_EQ(threads.size(), 1U);
}

/// Posts itself when it runs, so that one is always left.
struct Endless {
    oru::executor& executor;
    std::shared_ptr<void> token;
    void operator()() const { executor.post(*this, 0); }
};

TYPED_TEST(Executor, DestroysWhatNeverRan) {
    const auto token = std::make_shared<int>(0);
    oru::executor& executor = *this->loop.executor;
    const auto part = [&, token](void*) { executor.post([token] { FAIL(); }, 0); };
    executor.post(Endless{executor, {nullptr, part}}, 0);
    this->loop.destroy();
    EXPECT_EQ(token.use_count(), 2);  // `part` itself
}

TYPED_TEST(Executor, AnExceptionEndsTheProcessOrLeavesTheLoop) {
    this->loop.destroy();  // with its thread: a child that the test forks would be without it
    const auto fail = [] {
        TypeParam own;
        own.executor->post([] { throw std::runtime_error("out of paper"); }, 0);
        own.run();
    };
    if constexpr (std::is_same_v<TypeParam, AsioLoop>) {
        EXPECT_THROW(fail(), std::runtime_error);
    } else {
        EXPECT_DEATH(fail(), "out of paper");
    }
}

/// As an application that opens a dialog in a callback, and one that tears all down in its last.
TYPED_TEST(Executor, RunsTasksInANestedLoopAndGoesInOneOfItsOwn) {
    if constexpr (TypeParam::nests) {
        std::string order;
        const auto token = std::make_shared<int>(0);
        this->post([&] {
            order += 'a';
            this->post([&] {
                order += 'b';
                this->loop.stop();
            });
            this->loop.run();
            order += 'c';
            this->post([&order, token] { order += 'd'; });
            this->loop.executor.reset();
            EXPECT_EQ(token.use_count(), 1);
            this->loop.stop();
        });
        this->loop.run();
        EXPECT_EQ(order, "abc");
    }
}
