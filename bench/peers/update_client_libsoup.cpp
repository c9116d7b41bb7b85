// What examples/update_client.cpp does, with libsoup: asks which release there is, downloads it if
// it is another one, resumes, tries again, verifies. For the comparison of their lengths; a write
// stops the loop here, and nothing locks the part. update_client_libsoup URL FILE [AUTHORITIES]

#include <fcntl.h>
#include <glib-unix.h>
#include <libsoup/soup.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>

namespace {

constexpr unsigned most_retries = 10;
constexpr double first_delay = 1;
constexpr double longest_delay = 300;
constexpr guint stall_seconds = 60;
constexpr guint whole_seconds = 6 * 60 * 60;
constexpr std::uint64_t most_bytes = std::uint64_t{1} << 30U;
constexpr std::size_t most_of_check = 4096;
constexpr gsize block_size = 65536;

class UpdateClient {
public:
    UpdateClient(GMainLoop* loop, std::string file)
        : loop_(loop), file_(std::move(file)), part_(file_ + ".part"), state_(part_ + ".state") {
        soup_session_set_timeout(session_, stall_seconds);
    }
    UpdateClient(const UpdateClient&) = delete;
    UpdateClient& operator=(const UpdateClient&) = delete;
    ~UpdateClient() {
        if (descriptor_ >= 0) close(descriptor_);
        g_clear_object(&message_);
        g_clear_object(&stream_);
        g_object_unref(session_);
        g_object_unref(cancellable_);
    }

    bool trust(const char* authorities) {
        GError* error = nullptr;
        GTlsDatabase* database = g_tls_file_database_new(authorities, &error);
        if (database == nullptr) {
            fail(error);
            return false;
        }
        soup_session_set_tls_database(session_, database);
        g_object_unref(database);
        return true;
    }
    void check(const char* url) {
        message_ = soup_message_new(SOUP_METHOD_GET, url);
        if (message_ == nullptr) return end(1, "a bad URL");
        soup_session_send_and_read_async(session_, message_, G_PRIORITY_DEFAULT, cancellable_,
                                         checked, this);
    }
    void cancel() {
        g_cancellable_cancel(cancellable_);
        end(1, "cancelled");
    }
    int result() const { return result_; }

private:
    static void checked(GObject* /*session*/, GAsyncResult* result, gpointer data) {
        auto& self = *static_cast<UpdateClient*>(data);
        GError* error = nullptr;
        GBytes* bytes = soup_session_send_and_read_finish(self.session_, result, &error);
        if (bytes == nullptr) return self.fail(error);
        gsize size = 0;
        const auto* text = static_cast<const char*>(g_bytes_get_data(bytes, &size));
        self.compare({text, std::min(size, most_of_check)});
        g_bytes_unref(bytes);
    }

    void compare(const std::string& body) {
        const auto status = soup_message_get_status(message_);
        if (status != SOUP_STATUS_OK) return end(1, "status " + std::to_string(status));
        std::istringstream lines(body);
        for (std::string name, value; lines >> name >> value;) release_[name] = value;
        std::string present;
        std::ifstream(file_ + ".version") >> present;
        if (release_["version"].empty() || release_["sha256"].empty()) return end(1, "no release");
        if (present == release_["version"]) return end(0, "up to date");
        g_timeout_add_seconds(whole_seconds, timeIsOver, this);
        if (load()) start();
    }

    /// Opens the part. What it has counts if the state says of which version of which URL it is.
    bool load() {
        std::ifstream state(state_);
        std::string url;
        std::getline(state, url);
        std::getline(state, validator_);
        descriptor_ = open(part_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (descriptor_ < 0) return end(1, "cannot write " + part_), false;
        if (url != release_["url"] || validator_.empty()) drop();
        offset_ = static_cast<std::uint64_t>(lseek(descriptor_, 0, SEEK_END));
        return !ended_;
    }

    void drop() {
        unlink(state_.c_str());
        if (ftruncate(descriptor_, 0) != 0) return end(1, "cannot write " + part_);
        lseek(descriptor_, 0, SEEK_SET);
        validator_.clear();
        offset_ = 0;
    }

    void start() {
        g_clear_object(&message_);
        message_ = soup_message_new(SOUP_METHOD_GET, release_["url"].c_str());
        if (message_ == nullptr) return end(1, "a bad URL");
        // Bytes are counted and resumed as the server has them.
        soup_message_disable_feature(message_, SOUP_TYPE_CONTENT_DECODER);
        if (offset_ != 0) {
            auto* fields = soup_message_get_request_headers(message_);
            soup_message_headers_set_range(fields, static_cast<goffset>(offset_), -1);
            soup_message_headers_replace(fields, "If-Range", validator_.c_str());
        }
        soup_session_send_async(session_, message_, G_PRIORITY_DEFAULT, cancellable_, answered,
                                this);
    }

    static void answered(GObject* /*session*/, GAsyncResult* result, gpointer data) {
        auto& self = *static_cast<UpdateClient*>(data);
        GError* error = nullptr;
        self.stream_ = soup_session_send_finish(self.session_, result, &error);
        if (self.stream_ == nullptr) return self.retryOrFail(error);
        self.decide();
    }

    void decide() {
        const auto status = soup_message_get_status(message_);
        auto* fields = soup_message_get_response_headers(message_);
        goffset first = 0;
        goffset last = 0;
        goffset total = 0;
        const bool ranged =
            status == SOUP_STATUS_PARTIAL_CONTENT &&
            soup_message_headers_get_content_range(fields, &first, &last, &total) != FALSE &&
            static_cast<std::uint64_t>(first) == offset_;
        if (status == SOUP_STATUS_OK) {
            drop();
            mark(fields);
        } else if (offset_ != 0 && (status == 416 || status == 206) && !ranged) {
            drop();
            return retry("another version", 0);
        } else if (!ranged) {
            const bool passes = status == 429 || status == 500 || (status >= 502 && status <= 504);
            const std::string reason = "status " + std::to_string(status);
            return passes ? retry(reason, askedDelay(fields)) : end(1, reason);
        }
        read();
    }

    void mark(SoupMessageHeaders* fields) {
        const char* tag = soup_message_headers_get_one(fields, "ETag");
        if (tag == nullptr || *tag != '"') return;
        validator_ = tag;
        std::ofstream(state_) << release_["url"] << '\n' << validator_ << '\n';
    }

    static double askedDelay(SoupMessageHeaders* fields) {
        const char* text = soup_message_headers_get_one(fields, "Retry-After");
        if (text == nullptr) return 0;
        double seconds = std::atof(text);
        if (GDateTime* date = soup_date_time_new_from_http_string(text)) {
            seconds = static_cast<double>(g_date_time_to_unix(date) - std::time(nullptr));
            g_date_time_unref(date);
        }
        return std::clamp(seconds, 0.0, longest_delay);
    }

    void read() {
        g_input_stream_read_bytes_async(stream_, block_size, G_PRIORITY_DEFAULT, cancellable_, came,
                                        this);
    }

    static void came(GObject* /*stream*/, GAsyncResult* result, gpointer data) {
        auto& self = *static_cast<UpdateClient*>(data);
        GError* error = nullptr;
        GBytes* bytes = g_input_stream_read_bytes_finish(self.stream_, result, &error);
        if (bytes == nullptr) return self.retryOrFail(error);
        gsize size = 0;
        const auto* block = static_cast<const char*>(g_bytes_get_data(bytes, &size));
        const bool written = self.append(block, size);
        g_bytes_unref(bytes);
        if (!written) return;
        if (size == 0) return self.finish();
        self.read();
    }

    bool append(const char* data, std::size_t size) {
        while (size != 0) {
            const ssize_t written = write(descriptor_, data, size);
            if (written < 0 || offset_ + size > most_bytes) {
                end(1, written < 0 ? "cannot write " + part_ : "too large");
                return false;
            }
            data += written;
            size -= static_cast<std::size_t>(written);
            offset_ += static_cast<std::uint64_t>(written);
        }
        const gint64 now = g_get_monotonic_time();
        if (now - told_ > G_USEC_PER_SEC / 2) {
            std::cout << offset_ << " bytes\n";
            told_ = now;
        }
        return true;
    }

    void finish() {
        const std::string sum = checksum();
        unlink(state_.c_str());
        if (sum != release_["sha256"]) {
            unlink(part_.c_str());
            return end(1, "the SHA-256 of the body is " + sum);
        }
        const std::string folder = std::filesystem::absolute(file_).parent_path().string();
        const int directory = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const bool kept = fsync(descriptor_) == 0 && rename(part_.c_str(), file_.c_str()) == 0 &&
                          directory >= 0 && fsync(directory) == 0;
        if (directory >= 0) close(directory);
        if (!kept) return end(1, "cannot write " + file_);
        std::ofstream(file_ + ".version") << release_["version"] << '\n';
        end(0, "updated, " + std::to_string(offset_) + " bytes");
    }

    std::string checksum() const {
        GChecksum* sum = g_checksum_new(G_CHECKSUM_SHA256);
        std::ifstream part(part_, std::ios::binary);
        std::string block(block_size, '\0');
        while (part.read(block.data(), block_size), part.gcount() > 0) {
            g_checksum_update(sum, reinterpret_cast<const guchar*>(block.data()), part.gcount());
        }
        std::string text = g_checksum_get_string(sum);
        g_checksum_free(sum);
        return text;
    }

    void retryOrFail(GError* error) {
        if (error->domain == G_TLS_ERROR || error->code == G_IO_ERROR_CANCELLED) return fail(error);
        const std::string reason = error->message;
        g_error_free(error);
        retry(reason, 0);
    }

    void retry(const std::string& reason, double asked) {
        g_clear_object(&stream_);
        if (retries_++ == most_retries) return end(1, reason);
        const double grown = std::min(first_delay * std::exp2(retries_ - 1.0), longest_delay);
        const double range = std::max(grown, asked);
        const double delay = asked + std::uniform_real_distribution<>(0, range)(random_);
        std::cout << reason << "; again in " << delay << " s\n";
        g_timeout_add(static_cast<guint>(delay * 1000), startAgain, this);
    }
    static gboolean startAgain(gpointer data) {
        static_cast<UpdateClient*>(data)->start();
        return G_SOURCE_REMOVE;
    }
    static gboolean timeIsOver(gpointer data) {
        static_cast<UpdateClient*>(data)->cancel();
        return G_SOURCE_REMOVE;
    }

    void fail(GError* error) {
        end(1, error->message);
        g_error_free(error);
    }
    void end(int result, const std::string& text) {
        if (ended_) return;
        ended_ = true;
        std::cout << text << '\n';
        result_ = result;
        g_main_loop_quit(loop_);
    }

    GMainLoop* loop_;
    const std::string file_;
    const std::string part_;
    const std::string state_;
    SoupSession* session_ = soup_session_new();
    GCancellable* cancellable_ = g_cancellable_new();
    SoupMessage* message_ = nullptr;
    GInputStream* stream_ = nullptr;
    std::map<std::string, std::string> release_;
    std::string validator_;
    std::minstd_rand random_{std::random_device()()};
    std::uint64_t offset_ = 0;
    gint64 told_ = 0;
    unsigned retries_ = 0;
    int descriptor_ = -1;
    bool ended_ = false;
    int result_ = 1;
};

gboolean interrupted(gpointer client) {
    static_cast<UpdateClient*>(client)->cancel();
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 && argc != 4) return 2;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    int result = 1;
    {
        UpdateClient client(loop, argv[2]);
        g_unix_signal_add(SIGINT, interrupted, &client);
        g_unix_signal_add(SIGTERM, interrupted, &client);
        if (argc == 3 || client.trust(argv[3])) {
            client.check(argv[1]);
            g_main_loop_run(loop);
        }
        result = client.result();
    }
    g_main_loop_unref(loop);
    return result;
}
