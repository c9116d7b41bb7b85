// The ways to wait for a request that are not callbacks.

#include <utility>  // Boost 1.74's awaitable.hpp misses it

#include <boost/asio/co_spawn.hpp>
#ifdef ZEL_HTTP_WITH_BOOST_COROUTINE
#include <boost/asio/spawn.hpp>
#endif
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>
#include <string>
#include <thread>
#include <variant>

#include "support/engine_test.h"
#include "zel_http/asio.h"
#ifdef __cpp_impl_coroutine
#include "zel_http/coroutine.h"
#endif
#if BOOST_VERSION >= 107700
#include <boost/asio/bind_cancellation_slot.hpp>
#endif

namespace test {
namespace {

using Error = boost::system::error_code;

std::string textOf(const zel::http::Outcome& outcome) {
    return std::visit([](const auto& data) { return test::textOf(data); }, outcome);
}

class Waiting : public EngineTest {
protected:
    auto get(const std::string& url) {
        return [this, url](auto&& token) {
            return zel::http::async_request(loop, client, Get(url), {}, token);
        };
    }
    std::string told;
};

TEST_F(Waiting, WithTokensOfAsio) {
    boost::asio::io_context own;
    oru::asio_executor on_own(own);
    const auto itsClient = zel::http::createClient(on_own, logger);
    zel::http::async_request(
        own, itsClient, Get(origin("/hello")), {},
        [&](Error error, const auto& outcome) { told = error.message() + ", " + textOf(outcome); });
    own.run();  // until the operation, its only work, is over
    EXPECT_EQ(told, "Success, 200 hello");

    Flag done;
    std::thread other([&, ask = get("no://scheme")] {
        told = textOf(ask(boost::asio::use_future).get());
        done.set();
    });
    runUntil("the future", [&] { return done.isSet(); });
    other.join();
    EXPECT_EQ(told.substr(0, told.find('>') + 1), "<Invalid URL>");
}

#ifdef ZEL_HTTP_WITH_BOOST_COROUTINE
TEST_F(Waiting, OnStacksOfTheirOwn) {
    const auto wait = [&](boost::asio::yield_context yield) {
        told = textOf(get(origin("/hello"))(yield));
    };
#if BOOST_VERSION >= 108000
    boost::asio::spawn(loop, wait, [](const std::exception_ptr&) {});
#else
    boost::asio::spawn(loop, wait);
#endif
    runUntil("the outcome", [&] { return told == "200 hello"; });
}
#endif

#if BOOST_VERSION >= 107700
TEST_F(Waiting, ACancelledOperationOfAsioEndsOnce) {
    boost::asio::cancellation_signal signal;
    const ScriptedServer silent(stall);
    get(silent.url())(boost::asio::bind_cancellation_slot(
        signal.slot(), [&](Error error, const auto&) { told += error.message(); }));
    signal.emit(boost::asio::cancellation_type::total);
    signal.emit(boost::asio::cancellation_type::terminal);
    EXPECT_EQ(told, "");
    runUntil("the handler", [&] { return !told.empty(); });
    EXPECT_EQ(told, "Operation canceled");
}
#endif

#ifdef __cpp_impl_coroutine
/// A host's own type of coroutines, which begins at once and stays when it has ended.
struct Coroutine {
    struct promise_type {
        Coroutine get_return_object() {
            return {std::coroutine_handle<promise_type>::from_promise(*this)};
        }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_always final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
    std::coroutine_handle<promise_type> handle;
};

Coroutine ask(zel::http::Client& client, std::string first, std::string second, std::string& told) {
    told += textOf(co_await zel::http::request(client, Get(first)));
    told += ", " + textOf(co_await zel::http::request(client, Get(second)));
}

TEST_F(Waiting, InCoroutines) {
    const ScriptedServer silent(stall);
    const auto whole = ask(*client, origin("/hello"), origin("/status/404"), told);
    runUntil("the end of the coroutine", [&] { return whole.handle.done(); });
    EXPECT_EQ(told.substr(0, 14), "200 hello, 404");
    whole.handle.destroy();

    const auto half = ask(*client, origin("/hello"), silent.url(), told = "");
    runUntil("the first outcome", [&] { return !told.empty(); });
    half.handle.destroy();
    EXPECT_EQ(logger.lines("Cancelling").size(), 1U);
}
#endif

#ifdef BOOST_ASIO_HAS_CO_AWAIT
TEST_F(Waiting, InCoroutinesOfAsio) {
    boost::asio::co_spawn(
        loop,
        [this]() -> boost::asio::awaitable<zel::http::Outcome> {
            co_return co_await get(origin("/hello"))(boost::asio::use_awaitable);
        },
        [&](std::exception_ptr, const auto& outcome) { told = "awaited " + textOf(outcome); });
    runUntil("the awaitable", [&] { return told == "awaited 200 hello"; });
}
#endif

}  // namespace
}  // namespace test
