// Declares the options of the command line and their help texts.

#include "options.h"

#include <CLI/CLI.hpp>
#include <limits>

#include "exit_status.h"

namespace tool {
namespace {

using zel::http::RequestConfig;

constexpr double longest_time = 1e9;  // seconds; about 32 years
constexpr std::size_t most_repeats = 1'000'000;
constexpr std::size_t usual_parallel = 50;
constexpr std::size_t most_parallel = 10'000;

constexpr const char* description =
    "Performs HTTP and HTTPS requests through libzel_http and prints each answer. Most options "
    "are\n"
    "those of curl. Without a URL it starts servers of its own on loopback and shows the library "
    "at\n"
    "work against them.";

constexpr const char* examples =
    "Examples:\n"
    "  zel-http https://device.example/state\n"
    "        print the answer\n"
    "  zel-http -X PUT -H 'Content-Type: application/json' -d @state.json URL\n"
    "        send a file\n"
    "  zel-http -o image.bin URL\n"
    "        download with constant memory; image.bin is there when it is complete\n"
    "  zel-http -C - --retry 5 -o image.bin URL\n"
    "        go on where an earlier download has stopped, and try again when it breaks\n"
    "  zel-http -O --parallel 4 URL1 URL2 URL3...\n"
    "        many downloads, four at a time\n"
    "  zel-http --repeat 1000 --parallel 8 URL\n"
    "        the latency of 1,000 requests, eight at a time\n"
    "  zel-http --json URL | jq .timings_ms\n"
    "        for scripts\n"
    "  zel-http --cacert root.pem --cert device.pem --key device.key URL\n"
    "        mutual TLS\n"
    "\n"
    "Exit status:\n";

constexpr const char* notes = R"(
Files:
  FILE appears when its body is whole, and only with a status below 400. Until then
  the bytes are in FILE.part. They stay after an interruption if the server tells
  versions apart (ETag, Last-Modified), and -C - continues them. A file that is
  replaced keeps its permissions and, where you may set it, its owner, but no
  hard links.

Differences from curl:
  -L              redirects are followed without it; --no-location turns that off
  -i, -I          of several responses only the last one's head is shown
                  with them, -r and --compressed a body is held in memory
  -o, -O          a status from 400 on leaves the file as it is, and ends with 22;
                  304 leaves it, too, and ends with 0
                  the folder is looked for before anything is sent
  -O              is for each URL that no -o is for
  -b              what a server sets is sent to no other URL of the command line
  -C              only with -, and only for what this tool has begun
  -d @FILE        takes out line ends and zeros, and nothing else
  -F              a form within a form, "=(", is not here
  -T, -d @-       pipes and standard input are read first; Expect is not sent
  -T              one file, for all URLs
  -u              asks for no password
  --retry         an answer that is asked for again is not printed
                  nothing is asked for again once bytes went to a pipe or a terminal
  -x              the proxy is a tunnel for http URLs, too, and gets credentials when it asks
  -v              credentials and cookies are masked; --unmasked shows them
  -w              json, certs, referer, http_connect, size_header, size_request and
                  proxy_ssl_verify_result are not known; URLs without user and password
  --cert          FILE:PASSWORD, and a key with a password, are not here
  --http2         http URLs keep to HTTP/1.1
  -K              a value with blanks stands in quotes; others are refused
  -Z              no progress for each file; --parallel takes a number
  --json          prints outcomes, and sends nothing
  terminal        each outcome has a line on standard error; -s silences it
  URL             {} and [] do not stand for several URLs
  protocols       http and https only; any other ends with 1
  settings        neither .curlrc, .netrc nor CURL_CA_BUNDLE is read; -K reads a file of options
  several URLs    the exit status is that of the last failure, not of the last URL
  options         have their whole names, and no --no-NAME but --no-location
  other options   of curl's end with 2, and one line that names them

Environment:
  http_proxy, https_proxy, all_proxy, no_proxy    proxies, as for curl
  SSL_CERT_FILE                                   trusted authorities
  NO_COLOR                                        no colours in the log)";

CLI::Option* addText(CLI::App& app, const char* names, std::string& value, const char* help,
                     const char* placeholder) {
    return app.add_option(names, value, help)->option_text(placeholder)->take_last();
}

CLI::Option* addList(CLI::App& app, const char* names, std::vector<std::string>& values,
                     const char* help, const char* placeholder) {
    return app.add_option(names, values, help)
        ->option_text(placeholder)
        ->take_all()
        ->allow_extra_args(false);
}

CLI::Option* addSeconds(CLI::App& app, const char* names, double& value, const char* help) {
    return app.add_option(names, value, help)
        ->check(CLI::Range(0.0, longest_time))
        ->option_text("SECONDS")
        ->take_last();
}

/// Several of these make one body, in the order in which they stand.
void addData(CLI::App& app, Options& options, const char* names, DataPiece::Kind kind,
             const char* help) {
    app.add_option_function<std::string>(
           names,
           [&options, kind](const std::string& value) {
               options.data.push_back({kind, value});
           },
           help)
        ->option_text("DATA")
        ->take_last()
        ->trigger_on_parse();
}

/// A flag that stands for a value. Of several for the same value the last one counts.
template <typename Value>
void addChoice(CLI::App& app, const char* names, Value& value, Value choice, const char* help) {
    app.add_flag_callback(
           names, [&value, choice] { value = choice; }, help)
        ->trigger_on_parse();
}

void declareRequest(CLI::App& app, Options& options, CommandLine& line) {
    app.option_defaults()->group("Request");
    addText(app, "-X,--request", line.easy.method, "The method, any", "METHOD");
    app.add_flag("-I,--head", line.easy.head, "Ask for the header fields only, and print them");
    addList(app, "-H,--header", options.headers,
            "A header field, 'Name: value'; 'Name:' leaves a field out; @FILE has one a line",
            "LINE");
    addData(app, options, "-d,--data", DataPiece::Text,
            "The body; @FILE reads it from a file without line ends, @- from standard input. POST");
    addData(app, options, "--data-raw", DataPiece::Raw, "As -d, and @ means nothing");
    addData(app, options, "--data-binary", DataPiece::Binary, "As -d, with the file as it is");
    addData(app, options, "--data-urlencode", DataPiece::UrlEncoded,
            "As -d, encoded: VALUE, NAME=VALUE, @FILE or NAME@FILE");
    app.add_flag("-G,--get", options.data_to_url, "Append what -d gives to the URL; GET");
    addList(app, "-F,--form", options.form,
            "A part of a form: NAME=VALUE, NAME=@FILE or NAME=<FILE; ;type=, ;filename= behind",
            "PART");
    app.add_option(
           "-T,--upload-file", line.easy.upload_file,
           "Send a file with PUT, - for standard input; a URL that ends with / gets its name")
        ->option_text("FILE");
    addText(app, "-A,--user-agent", options.user_agent, "The User-Agent", "NAME");
    addText(app, "-e,--referer", options.referer, "The Referer", "URL");
    addList(app, "-b,--cookie", options.cookies, "Cookies, NAME=VALUE, or a file of them", "DATA");
    addText(app, "-u,--user", options.credentials, "Credentials for the server, by Basic",
            "USER:PASSWORD");
    app.add_flag("--basic", options.basic, "Offer Basic authentication, as without an option");
    app.add_flag("--digest", options.digest, "Offer Digest authentication; without --basic only");
    app.add_flag("--anyauth", options.any_authentication, "Offer what the server asks for");
    app.add_flag("--compressed", line.easy.compressed, "Ask for a compressed body, and unpack it");
    addChoice(app, "-L,--location", line.easy.follows_redirects, true,
              "Follow redirects, as without an option");
    addChoice(app, "--no-location", line.easy.follows_redirects, false, "Do not follow redirects");
    app.add_option("--max-redirs", line.easy.most_redirects,
                   "Follow at most so many; -1 for no limit")
        ->check(CLI::Range(-1, 1000))
        ->option_text("N")
        ->take_last();
    addText(app, "-K,--config", options.config,
            "Read options from a file, - for standard input, one a line: 'header = \"A: b\"'",
            "FILE");
    addText(app, "-r,--range", line.easy.range, "Only these bytes: 0-99, 100-, -100", "RANGE");
    app.add_flag("--reset-state", line.resets_state,
                 "Start clean: no cookies, connection or name look-up of before");
}

void declareConnection(CLI::App& app, Options& options, CommandLine& line) {
    app.option_defaults()->group("Connection");
    addSeconds(app, "-m,--max-time", options.timeout, "For the whole exchange; 0 for no limit");
    addSeconds(app, "--connect-timeout", options.connect_timeout, "Until there is a connection");
    addText(app, "--limit-rate", options.rate, "Bytes a second, both ways; with k, m or g", "RATE");
    addText(app, "--max-filesize", options.most_bytes, "The most body bytes accepted; with k, m, g",
            "BYTES");
    app.add_option("--retry", line.retry.most,
                   "Try again at most so often after what may pass: no answer in time, a "
                   "name not found, a status 408, 429, 500, 502, 503 or 504")
        ->option_text("N")
        ->take_last();
    app.add_flag("--retry-connrefused", line.retry.refused_connections,
                 "Try again after a refused connection, too");
    app.add_flag("--retry-all-errors", line.retry.all_errors, "Try again after every failure");
    addSeconds(app, "--retry-delay", options.retry_delay,
               "Between tries; otherwise 1 s, and twice as long each time");
    addList(app, "--resolve", line.easy.resolve, "The address of a host", "HOST:PORT:ADDRESS");
    app.add_flag("-4,--ipv4", options.ipv4, "IPv4 only");
    app.add_flag("-6,--ipv6", options.ipv6, "IPv6 only");
    app.add_flag("--http1.1", options.http_1_1, "HTTP/1.1 only");
    addText(app, "-x,--proxy", line.proxy, "Tunnel through this proxy", "URL");
    addText(app, "--noproxy", options.direct_hosts, "Hosts that go without a proxy; * for all",
            "HOSTS");
    addText(app, "-U,--proxy-user", options.proxy_credentials, "Credentials for the proxy",
            "USER:PASSWORD");
}

void declareTls(CLI::App& app, Options& options, RequestConfig& config, CommandLine& line) {
    app.option_defaults()->group("TLS");
    const auto file = [&](const char* name, std::optional<std::string>& path, const char* help) {
        app.add_option(name, path, help)->option_text("PATH")->take_last();
    };
    file("--cacert", config.ca_file, "Trusted authorities, PEM, instead of the system's");
    file("--capath", config.ca_dir, "A directory of trusted authorities, hashed");
    file("-E,--cert", config.own_cert, "The client's own certificate, PEM");
    file("--key", config.own_pkey, "The private key of --cert, PEM");
    const long tls_1_2 = CURL_SSLVERSION_TLSv1_2;
    const long tls_1_3 = CURL_SSLVERSION_TLSv1_3;
    addChoice(app, "--tlsv1.2", line.easy.tls_version, tls_1_2, "TLS 1.2 or later");
    addChoice(app, "--tlsv1.3", line.easy.tls_version, tls_1_3, "TLS 1.3 or later");
    app.add_flag("--partial-chain", config.tls_partial_chain,
                 "Let a chain end at any trusted certificate");
    app.add_flag("-k,--insecure", options.insecure, "Do not verify the server");
}

void declareOutput(CLI::App& app, Options& options, CommandLine& line) {
    app.option_defaults()->group("Output");
    app.add_flag("-i,--include", line.show_headers, "Print the response's header fields, too");
    addList(app, "-o,--output", options.output,
            "Stream the body to a file, or with - to standard output; the n-th for the n-th URL",
            "FILE");
    app.add_flag("-O,--remote-name", options.remote_name,
                 "Stream each body to a file, named as the end of its URL's path");
    addText(app, "--output-dir", options.output_directory, "Where files of -o and -O go", "PATH");
    addText(app, "-C,--continue-at", options.continue_at,
            "With - go on with what an interrupted download to the same file has left", "-")
        ->check(CLI::IsMember({"-"}));
    app.add_flag("-f,--fail", line.fails_on_errors,
                 "Fail with a status from 400 on, and print no body then");
    app.add_flag("-s,--silent", options.silent, "Print no progress, no outcomes and no errors");
    app.add_flag("-S,--show-error", options.show_error, "With -s print errors");
    addText(app, "-w,--write-out", line.write_out,
            "Print this after each answer, with %{http_code}, %{time_total} and others in it",
            "FORMAT");
    app.add_flag("-v,--verbose", options.verbose,
                 "Tell what is sent and received, without bodies; -vv what the library does, too");
    app.add_flag("--unmasked", line.easy.shows_secrets, "Let -v tell credentials and cookies");
    app.add_flag("--timings", line.show_timings, "Tell how long each phase took");
    app.add_flag("--stats", line.show_statistics,
                 "Tell in the end what the engine has done, on standard error, or as JSON");
    app.add_flag("--json", line.json, "Print each outcome as a line of JSON, body included");
    app.add_option("--log", line.log_level,
                   "Log what the library does to standard error, from 1 (summaries) to 9")
        ->check(CLI::Range(0, 9))
        ->option_text("LEVEL")
        ->take_last();
}

void declareMany(CLI::App& app, Options& options, CommandLine& line) {
    app.option_defaults()->group("Many requests");
    app.add_option("--repeat", line.repeat,
                   "Perform each request that often; bodies are dropped, latencies summarised")
        ->check(CLI::Range(std::size_t{1}, most_repeats))
        ->option_text("N")
        ->take_last();
    app.add_flag("--latency", options.latency, "As --repeat 100, unless that is given");
    app.add_option("--parallel", options.parallel,
                   "At most so many at a time; otherwise one after the other")
        ->check(CLI::Range(std::size_t{1}, most_parallel))
        ->option_text("N")
        ->take_last();
    addChoice(app, "-Z", options.parallel, usual_parallel,
              "As --parallel 50, unless that is given");
    addText(app, "--svg", line.picture, "Draw the latencies of --repeat into a file", "FILE");
}

/// What scripts for curl pass: other names, and what changes nothing here.
void acceptSilently(CLI::App& app, Options& options, CommandLine& line) {
    app.option_defaults()->group("");
    app.add_option("--url", options.more_urls)->take_all()->allow_extra_args(false);
    app.add_flag(
        "-q,--disable,-N,--no-buffer,-g,--globoff,-#,--progress-bar,--http2,--tcp-nodelay,"
        "--no-progress-meter,--compressed-ssh,-1,--tlsv1");
    app.add_flag("--path-as-is", line.easy.keeps_path);
    app.add_flag("-p,--proxytunnel", line.easy.tunnels);
    app.add_flag("--remote-name-all", options.remote_name);
    addData(app, options, "--data-ascii", DataPiece::Text, "");
}

}  // namespace

void declare(CLI::App& app, Options& options, RequestConfig& config, CommandLine& line) {
    app.description(description);
    app.footer(examples + exitStatusTable() + notes);
    app.add_option("URL", options.urls, "What to request")->option_text("...");
    declareRequest(app, options, line);
    declareConnection(app, options, line);
    declareTls(app, options, config, line);
    declareOutput(app, options, line);
    declareMany(app, options, line);
    acceptSilently(app, options, line);
    app.option_defaults()->group("Help");
    app.set_help_flag("-h,--help", "Print this help");
    app.add_flag("-V,--version", options.version, "Print the versions of tool and libraries");
    app.add_flag("--manual", options.manual, "Print the manual page, for man(1)");
    addText(app, "--completion", options.completion, "Print the completion for a shell",
            "bash|zsh|fish")
        ->check(CLI::IsMember({"bash", "zsh", "fish"}));
}

}  // namespace tool
