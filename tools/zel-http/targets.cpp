#include "targets.h"

#include <unistd.h>

#include <algorithm>
#include <set>
#include <utility>

#include "refusal.h"
#include "text.h"

namespace tool {
namespace {

/// The end of a URL's path, which names a file.
std::string nameIn(const std::string& url) {
    const auto begin = url.find('/', hostOf(url));
    const std::string path =
        begin == std::string::npos ? "" : url.substr(begin, url.find_first_of("?#", begin) - begin);
    std::string name = path.substr(path.rfind('/') + 1);
    if (name.empty() || name == "." || name == "..") {
        refuse("-O: " + withoutCredentials(url) + " names no file", CURLE_WRITE_ERROR);
    }
    return name;
}

std::string withDirectory(const std::string& directory, const std::string& file) {
    const bool here = directory.empty() || directory == ".";
    return here || file[0] == '/' ? file : directory + '/' + file;
}

/// A URL whose path ends with / gets the name of the file that is sent.
void addFileName(std::string& url, const std::string& file) {
    const auto host = hostOf(url);
    const auto path = url.find('/', host);
    auto end = std::min(url.find_first_of("?#"), url.size());
    if (host >= end) return;  // the name would become the host
    if (path > end) url.insert(end++, 1, '/');
    if (url[end - 1] == '/') url.insert(end, escaped(file.substr(file.rfind('/') + 1)));
}

void addQuery(std::string& url, const std::string& query) {
    const auto end = std::min(url.find('#'), url.size());
    const auto begin = url.find('?');
    const bool begun = begin < end && (begin + 1 == end || url[end - 1] == '&');
    const std::string before = begin >= end ? "?" : begun ? "" : "&";
    url.insert(end, before + query);
}

}  // namespace

void putInOrder(const CLI::App& app, Options& options) {
    const auto plain = std::exchange(options.urls, {});
    std::size_t plain_taken = 0;
    std::size_t marked_taken = 0;
    for (const CLI::Option* option : app.parse_order()) {
        if (option->get_positional() && plain_taken < plain.size()) {
            options.urls.push_back(plain[plain_taken++]);
        } else if (option->check_name("--url")) {
            options.urls.push_back(options.more_urls[marked_taken++]);
        } else if (option->check_name("--remote-name")) {
            options.files.emplace_back();
        } else if (option->check_name("--output")) {
            const auto before = std::count_if(options.files.begin(), options.files.end(),
                                              [](const auto& file) { return file.has_value(); });
            options.files.emplace_back(options.output[static_cast<std::size_t>(before)]);
        }
    }
}

void completeUrls(Options& options) {
    for (std::string& url : options.urls) {
        // One in the query is that of another URL.
        const bool has_scheme = url.find("://") < url.find_first_of("/?#");
        if (!has_scheme) url.insert(0, "http://");
    }
}

void chooseFiles(const Options& options, CommandLine& line) {
    std::set<std::string> names;
    for (std::size_t i = 0; i < options.urls.size(); ++i) {
        std::string file = "-";
        if (i < options.files.size() && options.files[i]) {
            file = *options.files[i];
            if (file.empty()) refuse("-o: the file has no name");
            if (file == "/dev/stdout") file = "-";
            if (file != "-") file = withDirectory(options.output_directory, file);
        } else if (options.remote_name) {
            file = withDirectory(options.output_directory, nameIn(options.urls[i]));
        }
        const bool first = names.insert(file).second;
        if (!first && file != "-" && file.substr(0, 5) != "/dev/") {
            refuse("-O: two URLs would be saved as " + file);
        }
        line.files.push_back(file);
    }
    const bool saves =
        std::any_of(names.begin(), names.end(), [](auto& file) { return file != "-"; });
    line.continues = !options.continue_at.empty();
    if (line.continues && !saves) refuse("-C: goes with -o and -O");
    if (line.repeat > 1 && saves) refuse("--repeat: drops the bodies, so -o and -O have no use");
    // The declared length of a compressed body is not that of what is saved, and a download has a
    // range of its own.
    if (line.show_headers || line.easy.head || line.easy.compressed || line.easy.asksForRange() ||
        line.repeat > 1) {
        line.holds_bodies = true;
    } else if (!saves) {
        // A terminal is to show no binary bodies, and several bodies come in any order.
        const bool streams = options.urls.size() == 1 && !line.json;
        const bool asked = !options.output.empty();
        line.holds_bodies = !streams || (!asked && isatty(STDOUT_FILENO) == 1);
    }
}

void addRequests(const Options& options, const zel::http::RequestConfig& common,
                 CommandLine& line) {
    const std::string query =
        options.data_to_url ? reading("-d", [&] { return joined(options.data); }) : "";
    for (std::string url : options.urls) {
        line.requests.push_back(common);
        zel::http::RequestConfig& request = line.requests.back();
        // -u has priority.
        if (auto own = takeCredentials(url); own && request.user.empty()) {
            request.user = std::move(own->user);
            request.password = std::move(own->password);
        }
        if (line.easy.upload_file) addFileName(url, *line.easy.upload_file);
        if (!query.empty()) addQuery(url, query);
        request.url = url;
    }
    line.parallel = options.parallel;
}

}  // namespace tool
