#include "curl_names.h"

#include <string_view>

namespace tool {
namespace {

constexpr std::string_view names =
    " -# -0 -1 -2 -3 -4 -6 -: -A -B -C -D -E -F -G -H -I -J -K -L -M -N -O -P -Q -R -S -T -U -V "
    "-X -Y -Z -a -b -c -d -e -f -g -h -i -j -k -l -m -n -o -p -q -r -s -t -u -v -w -x -y -z "
    "--abstract-unix-socket --alt-svc --anyauth --append --aws-sigv4 --basic --ca-native "
    "--cacert --capath --cert --cert-status --cert-type --ciphers --compressed --compressed-ssh "
    "--config --connect-timeout --connect-to --continue-at --cookie --cookie-jar --create-dirs "
    "--create-file-mode --crlf --crlfile --curves --data --data-ascii --data-binary --data-raw "
    "--data-urlencode --delegation --digest --disable --disable-eprt --disable-epsv "
    "--disallow-username-in-url --dns-interface --dns-ipv4-addr --dns-ipv6-addr --dns-servers "
    "--doh-cert-status --doh-insecure --doh-url --dump-ca-embed --dump-header --ech --egd-file "
    "--engine --etag-compare --etag-save --expand-url --expect100-timeout --fail --fail-early "
    "--fail-with-body --false-start --form --form-escape --form-string --ftp-account "
    "--ftp-alternative-to-user --ftp-create-dirs --ftp-method --ftp-pasv --ftp-port --ftp-pret "
    "--ftp-skip-pasv-ip --ftp-ssl-ccc --ftp-ssl-ccc-mode --ftp-ssl-control --get --globoff "
    "--happy-eyeballs-timeout-ms --haproxy-clientip --haproxy-protocol --head --header --help "
    "--hostpubmd5 --hostpubsha256 --hsts --http0.9 --http1.0 --http1.1 --http2 "
    "--http2-prior-knowledge --http3 --http3-only --ignore-content-length --include --insecure "
    "--interface --ip-tos --ipfs-gateway --ipv4 --ipv6 --json --junk-session-cookies "
    "--keepalive-cnt --keepalive-time --key --key-type --krb --libcurl --limit-rate --list-only "
    "--local-port --location --location-trusted --login-options --mail-auth --mail-from "
    "--mail-rcpt --mail-rcpt-allowfails --manual --max-filesize --max-redirs --max-time "
    "--metalink --mptcp --negotiate --netrc --netrc-file --netrc-optional --next --no-alpn "
    "--no-buffer --no-clobber --no-keepalive --no-npn --no-progress-meter --no-sessionid "
    "--noproxy --ntlm --ntlm-wb --oauth2-bearer --out-null --output --output-dir --parallel "
    "--parallel-immediate --parallel-max --parallel-max-host --pass --path-as-is --pinnedpubkey "
    "--post301 --post302 --post303 --preproxy --progress-bar --proto --proto-default "
    "--proto-redir --proxy --proxy-anyauth --proxy-basic --proxy-ca-native --proxy-cacert "
    "--proxy-capath --proxy-cert --proxy-cert-type --proxy-ciphers --proxy-crlfile "
    "--proxy-digest --proxy-header --proxy-insecure --proxy-key --proxy-key-type "
    "--proxy-negotiate --proxy-ntlm --proxy-pass --proxy-pinnedpubkey --proxy-service-name "
    "--proxy-ssl-allow-beast --proxy-ssl-auto-client-cert --proxy-tls13-ciphers "
    "--proxy-tlsauthtype --proxy-tlspassword --proxy-tlsuser --proxy-tlsv1 --proxy-user "
    "--proxy1.0 --proxytunnel --pubkey --quote --random-file --range --rate --raw --referer "
    "--remote-header-name --remote-name --remote-name-all --remote-time --remove-on-error "
    "--request --request-target --resolve --retry --retry-all-errors --retry-connrefused "
    "--retry-delay --retry-max-time --sasl-authzid --sasl-ir --service-name --show-error "
    "--sigalgs --silent --skip-existing --socks4 --socks4a --socks5 --socks5-basic "
    "--socks5-gssapi --socks5-gssapi-nec --socks5-gssapi-service --socks5-hostname --speed-limit "
    "--speed-time --ssl --ssl-allow-beast --ssl-auto-client-cert --ssl-no-revoke --ssl-reqd "
    "--ssl-revoke-best-effort --sslv2 --sslv3 --stderr --styled-output "
    "--suppress-connect-headers --tcp-fastopen --tcp-nodelay --telnet-option --tftp-blksize "
    "--tftp-no-options --time-cond --tls-earlydata --tls-max --tls13-ciphers --tlsauthtype "
    "--tlspassword --tlsuser --tlsv1 --tlsv1.0 --tlsv1.1 --tlsv1.2 --tlsv1.3 --tr-encoding "
    "--trace --trace-ascii --trace-config --trace-time --unix-socket --upload-file "
    "--upload-flags --url --url-query --use-ascii --user --user-agent --variable --verbose "
    "--version --vlan-priority --write-out --xattr ";

}  // namespace

OptionKind kindOf(const std::string& option) {
    const auto has = [](const std::string& text) {
        return names.find(text) != std::string_view::npos;
    };
    if (option[1] != '-') {
        return has(' ' + option.substr(0, 2) + ' ') ? OptionKind::OfCurl : OptionKind::Unknown;
    }
    const std::string name = option.substr(0, option.find('='));
    const bool negates = name.rfind("--no-", 0) == 0 && has(" --" + name.substr(5) + ' ');
    if (negates || has(' ' + name + ' ')) return OptionKind::OfCurl;
    return has(' ' + name) ? OptionKind::Shortened : OptionKind::Unknown;
}

}  // namespace tool
