// qdquick-cli: sends one JSON command to a local request port of the
// gateway agent and prints the reply; `status` prints the host daemon's
// status file.
#include <cjson/cJSON.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "cli.h"

namespace {

const char kHelp[] = R"(Usage:
  qdquick-cli [--udp | --tcp | --quick] [options] [JSON]
  qdquick-cli status [--root DIR | --status-file PATH] [--json | --raw]
  qdquick-cli --version

Sends one JSON command to a local request port of the qdquick gateway
agent and prints the reply, pretty-printed.

Transports:
  --udp            one datagram each way, port 18401 (the default)
  --tcp            one length-framed message each way (4-byte big-endian
                   length, then the text), port 18998
  --quick          the quick-install port 7998: the command goes out as
                   Base64 and the reply is decoded before it is printed

Options:
  --host HOST      address or name of the agent (default 127.0.0.1)
  --port PORT      port (default: the transport's)
  --timeout SECS   give up when no whole reply came within SECS seconds
                   (default 5; decimals allowed)
  --raw            print the reply text as received (decoded for --quick)
  -h, --help       this text
  -V, --version    the version
Options take their value as the next word or after '=' (--port=18998).

status: the host daemon's status file, summed up: version, state (checked
against the daemon's pid), each platform's status, last heartbeat and
last failure with its reason, the plugins, problems and the last reload.
  --root DIR       the daemon's root (default $QDQUICK_ROOT, else /); the
                   file is DIR/var/qdquickd/status.json
  --status-file P  that status file instead
  --json           print the file as JSON (pretty); --raw: as read

JSON is the command text, for example '{"RPCMethod":"ListPlugin"}'.
Without it, or as "-", the command is read from standard input. It must
be valid JSON; it is sent as given.

Exit status:
  0  a reply was printed
  2  bad options, or the command is not valid JSON
  3  time-out: no reply within --timeout
  4  refused: nothing listens on that port (connection refused or ICMP
     port unreachable)
  5  malformed reply: not JSON, not Base64 (--quick), or a broken frame;
     or a status file that is not JSON
  6  no reply: the service closed the TCP connection without answering
     (it does so for messages it does not answer)
  7  any other failure (name lookup, network, missing status file)
  8  status: the daemon is not running (stopped, failed to start, or the
     status file is stale: its pid is gone)
)";

struct Options {
    cli::Transport transport = cli::Transport::Udp;
    cli::Target target;
    bool raw = false;
    bool json_out = false;
    bool status = false;
    std::string status_file;
    std::string root;
    bool have_root = false;
    std::string json;
    bool have_json = false;
};

cli::Error usage(const std::string &what) {
    return cli::Error(cli::kUsage, what + " (see --help)");
}

unsigned parse_port(const std::string &text) {
    char *end = nullptr;
    errno = 0;
    unsigned long v = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v == 0 || v > 65535) throw usage("bad port: " + text);
    return unsigned(v);
}

double parse_timeout(const std::string &text) {
    char *end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(v > 0.0) || v > 86400.0) throw usage("bad time-out: " + text);
    return v;
}

enum class Parsed { Run, Help, Version };

Parsed parse(int argc, char **argv, Options &o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        // "--opt=value" is "--opt value".
        std::string inline_value;
        bool has_inline = false;
        if (a.rfind("--", 0) == 0 && a.find('=') != std::string::npos) {
            inline_value = a.substr(a.find('=') + 1);
            a.resize(a.find('='));
            has_inline = true;
        }
        bool used = false;
        auto value = [&]() -> std::string {
            used = true;
            if (has_inline) return inline_value;
            if (i + 1 >= argc) throw usage(a + " needs a value");
            return argv[++i];
        };
        if (a == "-h" || a == "--help") return Parsed::Help;
        if (a == "-V" || a == "--version") return Parsed::Version;
        if (a == "--udp") o.transport = cli::Transport::Udp;
        else if (a == "--tcp") o.transport = cli::Transport::Tcp;
        else if (a == "--quick") o.transport = cli::Transport::Quick;
        else if (a == "--host") o.target.host = value();
        else if (a == "--port") o.target.port = parse_port(value());
        else if (a == "--timeout") o.target.timeout = parse_timeout(value());
        else if (a == "--raw") o.raw = true;
        else if (a == "--json") o.json_out = true;
        else if (a == "--status-file") o.status_file = value();
        else if (a == "--root") {
            o.root = value();
            o.have_root = true;
        } else if (a == "status" && !o.status && !o.have_json) o.status = true;
        else if (a.size() > 1 && a[0] == '-' && a != "-") throw usage("unknown option " + a);
        else if (!o.have_json) {
            o.json = a;
            o.have_json = true;
        } else {
            throw usage("more than one command given");
        }
        if (has_inline && !used) throw usage(a + " takes no value");
    }
    if (o.status && o.have_json) throw usage("status takes no command");
    if (!o.status && (o.have_root || !o.status_file.empty() || o.json_out))
        throw usage("--root, --status-file and --json go with status");
    if (o.have_root && !o.status_file.empty()) throw usage("give --root or --status-file, not both");
    if (o.json_out && o.raw) throw usage("give --json or --raw, not both");
    if (o.status && o.status_file.empty()) {
        // Where the daemon writes it with its default configuration.
        const char *env = std::getenv("QDQUICK_ROOT");
        std::string root = o.have_root ? o.root : env != nullptr ? env : "";
        while (!root.empty() && root.back() == '/') root.pop_back();
        o.status_file = root + "/var/qdquickd/status.json";
    }
    if (o.target.port == 0)
        o.target.port = o.transport == cli::Transport::Tcp ? 18998 : o.transport == cli::Transport::Quick ? 7998 : 18401;
    return Parsed::Run;
}

using JsonPtr = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

JsonPtr parse_json(const std::string &text) { return JsonPtr(cJSON_Parse(text.c_str()), cJSON_Delete); }

// Pretty-prints `text` (JSON) to standard output, or as it is with --raw.
void print(const std::string &text, bool raw, bool must_be_json, const std::string &what) {
    JsonPtr json = parse_json(text);
    if (!json && must_be_json) throw cli::Error(cli::kMalformed, what + " is not JSON: " + text.substr(0, 200));
    if (raw || !json) {
        std::cout << text << '\n';
        return;
    }
    std::unique_ptr<char, decltype(&cJSON_free)> pretty(cJSON_Print(json.get()), cJSON_free);
    if (!pretty) throw cli::Error(cli::kError, "out of memory");
    std::cout << pretty.get() << '\n';
}

int run_status(const Options &o) {
    return cli::show_status(o.status_file, o.raw        ? cli::StatusFormat::Raw
                                           : o.json_out ? cli::StatusFormat::Json
                                                        : cli::StatusFormat::Text);
}

int run_request(Options &o) {
    if (!o.have_json || o.json == "-") {
        std::ostringstream s;
        s << std::cin.rdbuf();
        o.json = s.str();
    }
    if (!parse_json(o.json)) throw usage("the command is not valid JSON");
    std::string reply;
    switch (o.transport) {
    case cli::Transport::Udp:
        print(cli::exchange_udp(o.target, o.json), o.raw, true, "reply");
        break;
    case cli::Transport::Tcp:
        print(cli::exchange_tcp(o.target, o.json), o.raw, true, "reply");
        break;
    case cli::Transport::Quick:
        // The quick-install reply text is the host's own; JSON or not.
        print(cli::base64_decode(cli::exchange_udp(o.target, cli::base64_encode(o.json))), o.raw, false, "reply");
        break;
    }
    return cli::kOk;
}

}  // namespace

int main(int argc, char **argv) {
    try {
        Options o;
        switch (parse(argc, argv, o)) {
        case Parsed::Help: std::cout << kHelp; return cli::kOk;
        case Parsed::Version: std::cout << "qdquick-cli " << QDQUICK_CLI_VERSION << '\n'; return cli::kOk;
        case Parsed::Run: break;
        }
        return o.status ? run_status(o) : run_request(o);
    } catch (const cli::Error &e) {
        std::cerr << "qdquick-cli: " << e.what() << '\n';
        return e.code;
    } catch (const std::exception &e) {
        std::cerr << "qdquick-cli: " << e.what() << '\n';
        return cli::kError;
    }
}
