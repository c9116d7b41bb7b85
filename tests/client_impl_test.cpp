// What of the client no exchange can reach; the sources of the client are compiled in.

#include <gtest/gtest.h>

#include "Client/curl_request.h"
#include "oru/asio_executor.h"
#include "support/recording_logger.h"

namespace zel::http {
namespace {

struct Parts {
    boost::asio::io_context loop;
    oru::asio_executor executor{loop};
    test::RecordingLogger logger;
};

TEST(ClientImplTest, MustBeOwnedByASharedPointer) {
    Parts parts;
    ClientImpl unowned(parts.executor, parts.logger);
    const auto callback = [](auto&&...) {};
    EXPECT_THROW(unowned.start_request({}, {}, Client::ResponseCallback(callback),
                                       Client::ErrorCallback(callback)),
                 std::bad_weak_ptr);
    EXPECT_EQ(unowned.allocate_request_id(), 2U);
}

TEST(ClientImplDeathTest, FailuresOutsideTheMappingStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Parts parts;
    const auto client = std::make_shared<ClientImpl>(parts.executor, parts.logger);
    const auto fail = [&](Failure failure) {
        std::make_shared<ClientImpl::CurlRequest>(client, 1U, RequestConfig())
            ->notifyFailure(failure, nullptr);
    };
    EXPECT_DEATH(fail(Failure::HttpErrorCode), "Invalid Failure -> ClientFailure conversion");
    EXPECT_DEATH(fail(static_cast<Failure>(12)), "Unexpected switch-case fallthrough");
    fail(Failure::AuthenticationFailure);  // an error when no status came with it
    EXPECT_EQ(parts.loop.poll(), 1U);
}

TEST(CurlRequest, KeepsTheBytesUpToItsLimit) {
    Parts parts;
    const auto client = std::make_shared<ClientImpl>(parts.executor, parts.logger);
    RequestConfig config;
    config.max_download_size = 10;
    ClientImpl::CurlRequest request(client, 1U, config);
    request.notifySize(4294967295U);  // a header that lies
    request.notifyDataReceived("123456", 6);
    EXPECT_THROW(request.notifyDataReceived("789012", 6), std::runtime_error);
    EXPECT_THROW(request.notifyDataReceived("x", 1), std::runtime_error);
    request.notifyDataReceived("", 0);
}

}  // namespace
}  // namespace zel::http
