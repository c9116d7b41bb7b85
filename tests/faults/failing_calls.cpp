#include "failing_calls.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <netdb.h>
#include <resolv.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>
#include <string_view>

namespace test {

std::atomic<std::size_t> failing_allocation{std::numeric_limits<std::size_t>::max()};
std::atomic<int> failing_wakeups{0};

namespace {

/// Down to the one that fails; 0 when none does.
std::atomic<long> allocations_left{0};
thread_local bool counts_allocations = false;

/// In network order; 0 while there is no silent name server.
std::atomic<std::uint16_t> silent_port{0};

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = port;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool isSilent(const char* name) {
    constexpr std::string_view suffix = ".silent.test";
    const std::string_view text = name == nullptr ? "" : name;
    return text.size() > suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

/// The C library heeds what a thread has set here.
void askSilentServer() {
    res_init();
    _res.nscount = 1;
    _res.nsaddr_list[0] = loopback(silent_port);
    _res.options &= ~static_cast<unsigned long>(RES_DNSRCH | RES_DEFNAMES);
    _res.retrans = 2;  // seconds
    _res.retry = 2;
}

}  // namespace

void failAllocation(long nth) {
    allocations_left = nth;
    counts_allocations = nth != 0;
}

bool allocationFailed() { return allocations_left.exchange(0) == 0; }

SilentNameServer::SilentNameServer() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(socket_, generic, length) != 0 || getsockname(socket_, generic, &length) != 0) {
        throw std::runtime_error("no socket for the silent name server");
    }
    silent_port = address.sin_port;
}

SilentNameServer::~SilentNameServer() {
    silent_port = 0;
    close(socket_);
}

bool SilentNameServer::asked() const {
    std::array<char, 512> question{};
    return recv(socket_, question.data(), question.size(), MSG_DONTWAIT) > 0;
}

}  // namespace test

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** result) {
    static const auto next =
        reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (test::silent_port != 0 && test::isSilent(name)) test::askSilentServer();
    return next(name, service, hints, result);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int eventfd_write(int descriptor, eventfd_t value) {
    static const auto next =
        reinterpret_cast<decltype(&eventfd_write)>(dlsym(RTLD_NEXT, "eventfd_write"));
    if (test::failing_wakeups > 0 && test::failing_wakeups-- > 0) {
        errno = EAGAIN;
        return -1;
    }
    return next(descriptor, value);
}

#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
namespace test {
namespace {

bool allocationFails() {
    if (!counts_allocations || allocations_left == 0 || --allocations_left != 0) return false;
    counts_allocations = false;
    std::array<void*, 30> callers{};
    const int depth = backtrace(callers.data(), static_cast<int>(callers.size()));
    backtrace_symbols_fd(callers.data(), depth, STDERR_FILENO);
    errno = ENOMEM;
    return true;
}

}  // namespace
}  // namespace test

// The C library's own, by their other names.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size) noexcept {
    return test::allocationFails() ? nullptr : __libc_malloc(size);
}
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
void* calloc(std::size_t count, std::size_t size) noexcept {
    return test::allocationFails() ? nullptr : __libc_calloc(count, size);
}
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
void* realloc(void* memory, std::size_t size) noexcept {
    return test::allocationFails() ? nullptr : __libc_realloc(memory, size);
}
}
#endif

void* operator new(std::size_t size) {
    if (size >= test::failing_allocation) throw std::bad_alloc();
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
