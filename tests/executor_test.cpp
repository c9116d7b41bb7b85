// The contract of an executor, run against each of the bundled ones.

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

namespace {

/// How deep tasks of these tests post tasks.
constexpr int deepest = 2;

/// `Loop` is an executor with its loop: `run` returns when all that was posted has run, and what
/// that posted; `destroy` leaves no way for a task to run.
template <typename Loop>
class Executor : public testing::Test {
protected:
    void post(std::function<void()> task) { loop.executor->post(std::move(task), 0); }
    Loop loop;
};
TYPED_TEST_SUITE_P(Executor);

TYPED_TEST_P(Executor, RunsTasksInOrderOnItsThreadAndNeverInsidePost) {
    std::string order;
    std::vector<std::thread::id> threads;
    const auto note = [&](char name) {
        order += name;
        threads.push_back(std::this_thread::get_id());
    };
    const auto token = std::make_shared<int>(0);
    std::thread([&] { this->post([&, token] { note('a'); }); }).join();
    this->post([&] {
        this->post([&, token] { note('d'); });
        note('b');
    });
    this->post([&] { note('c'); });
    this->loop.run();
    EXPECT_EQ(order.substr(0, 2), "ab");
    EXPECT_LT(order.find('b'), order.find('d'));
    EXPECT_EQ(order.size(), 4U);
    EXPECT_EQ(threads, std::vector<std::thread::id>(4, threads[0]));
    EXPECT_EQ(threads[0] == std::this_thread::get_id(), TypeParam::on_this_thread);
    EXPECT_EQ(token.use_count(), 1);
}

/// Posts itself when it runs, so that one is always left.
struct Endless {
    oru::executor& executor;
    std::shared_ptr<void> token;
    void operator()() const { executor.post(*this, 0); }
};

TYPED_TEST_P(Executor, DestroysWhatNeverRan) {
    const auto token = std::make_shared<int>(0);
    oru::executor& executor = *this->loop.executor;
    const auto part = [&, token](void*) { executor.post([token] { FAIL(); }, 0); };
    executor.post(Endless{executor, {nullptr, part}}, 0);
    this->loop.destroy();
    EXPECT_EQ(token.use_count(), 2);  // `part` itself
}

TYPED_TEST_P(Executor, AnExceptionEndsTheProcessOrLeavesTheLoop) {
    this->loop.destroy();  // with its thread: a child that the test forks would be without it
    const auto fail = [] {
        TypeParam own;
        own.executor->post([] { throw std::runtime_error("out of paper"); }, 0);
        own.run();
    };
    if constexpr (TypeParam::lets_exceptions_out) {
        EXPECT_THROW(fail(), std::runtime_error);
    } else {
        EXPECT_DEATH(fail(), "out of paper");
    }
}

REGISTER_TYPED_TEST_SUITE_P(Executor, RunsTasksInOrderOnItsThreadAndNeverInsidePost,
                            DestroysWhatNeverRan, AnExceptionEndsTheProcessOrLeavesTheLoop);
// The empty argument below is for clang, which misses one for the macro's dots otherwise.

struct AsioLoop {
    static constexpr bool on_this_thread = true;
    static constexpr bool lets_exceptions_out = true;
    std::unique_ptr<boost::asio::io_context> loop = std::make_unique<boost::asio::io_context>();
    std::optional<oru::asio_executor> executor{*loop};
    void run() const { loop->run(); }
    void destroy() { loop.reset(); }
};
INSTANTIATE_TYPED_TEST_SUITE_P(AsioExecutor, Executor, AsioLoop, );

struct PlainThread {
    static constexpr bool on_this_thread = false;
    static constexpr bool lets_exceptions_out = false;
    std::optional<oru::thread_executor> executor{"tasks"};
    void run() {
        for (int posted = 0; posted < deepest; ++posted) {
            const auto reached = std::make_shared<std::promise<void>>();
            executor->post([reached] { reached->set_value(); }, 0);
            reached->get_future().wait();
        }
    }
    void destroy() { executor.reset(); }
};
INSTANTIATE_TYPED_TEST_SUITE_P(ThreadExecutor, Executor, PlainThread, );

#ifdef ZEL_HTTP_WITH_GLIB
struct GlibLoop {
    static constexpr bool on_this_thread = true;
    static constexpr bool lets_exceptions_out = false;
    const std::unique_ptr<GMainContext, decltype(&g_main_context_unref)> loop{g_main_context_new(),
                                                                              g_main_context_unref};
    std::optional<oru::glib_executor> executor{loop.get()};
    void run() {
        while (g_main_context_iteration(loop.get(), FALSE) != FALSE) {
        }
    }
    void destroy() {
        executor.reset();
        run();
    }
};
INSTANTIATE_TYPED_TEST_SUITE_P(GlibExecutor, Executor, GlibLoop, );
#endif

#ifdef ZEL_HTTP_WITH_QT
struct QtLoop {
    static constexpr bool on_this_thread = true;
    static constexpr bool lets_exceptions_out = false;
    int arguments = 0;
    QCoreApplication loop{arguments, nullptr};
    std::optional<oru::qt_executor> executor{std::in_place};
    void run() {
        for (int posted = 0; posted < deepest; ++posted) {
            QEventLoop round;
            QMetaObject::invokeMethod(&round, "quit", Qt::QueuedConnection);
            round.exec();
        }
    }
    void destroy() {
        executor.reset();
        run();
    }
};
INSTANTIATE_TYPED_TEST_SUITE_P(QtExecutor, Executor, QtLoop, );
#endif

/// As an application that tears everything down in its last callback, and one that opens a dialog
/// in a callback.
template <typename Loop>
class LoopExecutor : public Executor<Loop> {};
TYPED_TEST_SUITE_P(LoopExecutor);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(LoopExecutor);  // where there is neither GLib nor Qt

TYPED_TEST_P(LoopExecutor, RunsTasksInANestedLoopAndGoesInOneOfItsOwn) {
    std::string order;
    const auto token = std::make_shared<int>(0);
    this->post([&] {
        order += 'a';
        this->loop.run();
        order += 'c';
        this->post([&order, token] { order += 'd'; });
        this->loop.executor.reset();
        EXPECT_EQ(token.use_count(), 1);
    });
    this->post([&] { order += 'b'; });
    this->loop.run();
    EXPECT_EQ(order, "abc");
}
REGISTER_TYPED_TEST_SUITE_P(LoopExecutor, RunsTasksInANestedLoopAndGoesInOneOfItsOwn);
#ifdef ZEL_HTTP_WITH_GLIB
INSTANTIATE_TYPED_TEST_SUITE_P(GlibExecutor, LoopExecutor, GlibLoop, );
#endif
#ifdef ZEL_HTTP_WITH_QT
INSTANTIATE_TYPED_TEST_SUITE_P(QtExecutor, LoopExecutor, QtLoop, );
#endif

}  // namespace
