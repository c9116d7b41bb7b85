#include "support/engine_test.h"

namespace test {
namespace {

std::string origin_url;

}  // namespace

std::string origin(const std::string& target) { return origin_url + target; }

}  // namespace test

/// The origin's process is made first: it is a fork, and tests have threads.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const loopback::ServerProcess servers([](const loopback::ServerProcess::Ready& ready) {
        const test::Origin served;
        ready({served.url("")});
    });
    test::origin_url = servers.addresses().at(0);
    return RUN_ALL_TESTS();
}
