// The command-line parser every linnet tool uses, so that all of them answer
// alike: -h/--help prints the usage on stdout and exits 0; --version prints
// the tool's and the loaded library's version and exits 0; any mistake (an
// unknown option, a missing or malformed value, a number out of its range, a
// host that does not resolve) prints one line naming it, then the usage, on
// stderr and exits 2.
//
//     unsigned short port = 0;            // defaults are whatever the
//     unsigned int ip = htonl(INADDR_LOOPBACK);  // variables hold before Parse
//     int count = 100;
//     bool json = false;
//     std::string name;
//     args::Parser p("linnet-example", kUsage);  // kUsage: "usage: ...\n  ..."
//     p.Port("--port", &port, args::kNoZeroPort, args::kRequired)
//      .Host("--host", &ip)
//      .Number("--count", &count, 1, 1000000)
//      .Flag("--json", &json)
//      .Positional("NAME", &name);          // optional unless kRequired
//     if (const int rc = p.Parse(argc, argv); rc != args::kRun) return rc;
//
// Values follow their option as the next argument or after '='
// (--port 80, --port=80); "--" ends the options. Numbers are decimal, the
// whole argument, no sign unless the range allows negatives. Options given
// twice keep the last value. Nothing is written to a variable after the
// first error, but values parsed before it stay written.
#ifndef LINNET_EXAMPLES_ARGS_H
#define LINNET_EXAMPLES_ARGS_H

#include <functional>
#include <string>
#include <vector>

namespace args {

// Parse's answer when the tool should go on.
const int kRun = -1;
// Exit status for a usage error.
const int kUsageError = 2;

// Registration switches.
enum Need { kOptional, kRequired };
enum PortZero { kNoZeroPort, kAnyPort };  // kAnyPort: 0 lets the kernel choose

class Parser {
public:
    // `program` is the name printed in messages and by --version; `usage` the
    // whole usage text, printed as given (end it with a newline).
    Parser(const char* program, const char* usage);

    // A switch without a value: sets *out to true.
    Parser& Flag(const char* name, bool* out);
    // A decimal integer within [lo, hi] (inclusive), stored in *out, whose
    // type must hold the whole range.
    Parser& Number(const char* name, long long* out, long long lo, long long hi, Need need = kOptional);
    Parser& Number(const char* name, int* out, int lo, int hi, Need need = kOptional);
    Parser& Number(const char* name, unsigned* out, unsigned lo, unsigned hi, Need need = kOptional);
    // A time in seconds, decimal with at most three digits after the point
    // (10, 0.25), stored in *ms as milliseconds within [lo_ms, hi_ms].
    Parser& Seconds(const char* name, int* ms, int lo_ms, int hi_ms, Need need = kOptional);
    // A TCP/UDP port: 1-65535, or 0-65535 with kAnyPort.
    Parser& Port(const char* name, unsigned short* out, PortZero zero, Need need = kOptional);
    // An IPv4 address or a host name, resolved at once (getaddrinfo, IPv4
    // only); *out gets the first address in network byte order.
    Parser& Host(const char* name, unsigned int* out, Need need = kOptional);
    // Any text.
    Parser& Text(const char* name, std::string* out, Need need = kOptional);
    // The next argument that is not an option, in registration order;
    // `name` only appears in messages. Arguments beyond the registered
    // positionals are an error.
    Parser& Positional(const char* name, std::string* out, Need need = kOptional);

    // kRun to go on; otherwise the exit status for main to return (0 after
    // --help or --version, kUsageError after a message on stderr).
    int Parse(int argc, char** argv);

    // Prints "PROGRAM: MESSAGE" and the usage on stderr; returns kUsageError.
    int Fail(const std::string& message) const;

private:
    // Stores the value; returns an error text, empty on success.
    using Setter = std::function<std::string(const char* value)>;
    struct Option {
        std::string name;
        bool takes_value;
        bool required;
        bool seen;
        Setter set;
    };
    Parser& Add(const char* name, bool takes_value, Need need, Setter set);

    std::string program_;
    std::string usage_;
    std::vector<Option> options_;
    std::vector<Option> positionals_;
};

// "PROGRAM VERSION (liblinnet VERSION)": the tool's own version is the one
// it was compiled with (linnet/version.h), the library's the one loaded.
std::string VersionLine(const char* program);

// A library result as text: "Address already in use (-98)" for -98, the
// number alone for results that are not negative.
std::string ErrorText(int result);

// Parses a decimal integer that fills the whole of `text` into *out when it
// lies in [lo, hi]. Returns "" or what is wrong with it.
std::string ParseNumber(const char* text, long long lo, long long hi, long long* out);

// Parses seconds as Parser::Seconds takes them ("1.5" is 1500) into *ms
// when they lie in [lo_ms, hi_ms]. Returns "" or what is wrong with them.
std::string ParseSeconds(const char* text, long long lo_ms, long long hi_ms, long long* ms);

// Resolves `host` (dotted quad or name) to its first IPv4 address, network
// byte order, into *out. Returns "" or the reason: "... is an IPv6 address:
// linnet is IPv4 only", "... has only IPv6 addresses: ...", or the
// resolver's.
std::string ResolveIPv4(const char* host, unsigned int* out);

}  // namespace args

#endif
