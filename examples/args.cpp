// The tools' shared command-line parser (see args.h).
#include "args.h"

#include <arpa/inet.h>
#include <linnet/version.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace args {

namespace {

std::string VersionText(int v) {
    return std::to_string(v / 10000) + "." + std::to_string(v / 100 % 100) + "." + std::to_string(v % 100);
}

std::string Range(long long lo, long long hi) { return std::to_string(lo) + "-" + std::to_string(hi); }

// Milliseconds as seconds: 1500 is "1.5", 2000 is "2".
std::string SecondsText(long long ms) {
    std::string s = std::to_string(ms / 1000);
    if (ms % 1000 == 0) return s;
    std::string frac = std::to_string(1000 + ms % 1000).substr(1);
    while (frac.back() == '0') frac.pop_back();
    return s + "." + frac;
}

// A setter that parses its value with `parse` (range lo..hi) and stores it
// in *out, converted to out's type, only when the text was accepted.
template <typename T>
std::function<std::string(const char*)> store_parsed(std::string (*parse)(const char*, long long, long long,
                                                                          long long*),
                                                     T* out, long long lo, long long hi) {
    return [parse, out, lo, hi](const char* v) {
        long long n = 0;
        std::string e = parse(v, lo, hi, &n);
        if (e.empty()) *out = static_cast<T>(n);
        return e;
    };
}

}  // namespace

std::string ParseSeconds(const char* text, long long lo_ms, long long hi_ms, long long* ms) {
    const std::string quoted = std::string("'") + text + "'";
    const std::string range = SecondsText(lo_ms) + "-" + SecondsText(hi_ms) + " s";
    const std::string not_time = quoted + " is not a time in seconds (expected " + range + ")";
    // Digits, then optionally a point and one to three digits: no sign,
    // blanks or exponent, and nothing finer than a millisecond.
    const char* p = text;
    long long whole = 0;
    int digits = 0;
    bool too_big = false;  // stops the sum before it could overflow
    for (; std::isdigit(static_cast<unsigned char>(*p)); ++p, ++digits) {
        too_big = too_big || whole > hi_ms / 1000;
        if (!too_big) whole = whole * 10 + (*p - '0');
    }
    if (digits == 0) return not_time;
    long long frac = 0;
    bool finer = false;  // a nonzero digit below the millisecond
    if (*p == '.') {
        int n = 0;
        for (++p; std::isdigit(static_cast<unsigned char>(*p)); ++p, ++n) {
            if (n < 3)
                frac = frac * 10 + (*p - '0');
            else
                finer = finer || *p != '0';
        }
        if (n == 0) return not_time;
        for (; n < 3; ++n) frac *= 10;
    }
    if (*p != '\0') return not_time;
    if (finer) return quoted + " is finer than a millisecond (expected " + range + ")";
    const long long v = whole * 1000 + frac;
    if (too_big || v < lo_ms || v > hi_ms) return quoted + " is out of range " + range;
    *ms = v;
    return "";
}

std::string ParseNumber(const char* text, long long lo, long long hi, long long* out) {
    const std::string quoted = std::string("'") + text + "'";
    // strtoll skips leading blanks and takes a sign; neither is a number here
    // unless the range asks for negatives.
    const bool sign_ok = lo < 0 && text[0] == '-';
    if (text[0] == '\0' || !(std::isdigit(static_cast<unsigned char>(text[0])) || sign_ok))
        return quoted + " is not a number (expected " + Range(lo, hi) + ")";
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(text, &end, 10);
    if (*end != '\0') return quoted + " is not a number (expected " + Range(lo, hi) + ")";
    if (errno == ERANGE || v < lo || v > hi) return quoted + " is out of range " + Range(lo, hi);
    *out = v;
    return "";
}

std::string ResolveIPv4(const char* host, unsigned int* out) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int r = getaddrinfo(host, nullptr, &hints, &found);
    if (r != 0) {
        const std::string why = r == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(r);
        // Say so when the host is IPv6 only: linnet's sockets cannot reach it.
        in6_addr v6;
        if (inet_pton(AF_INET6, host, &v6) == 1)
            return std::string("'") + host + "' is an IPv6 address: linnet is IPv4 only";
        hints.ai_family = AF_INET6;
        if (getaddrinfo(host, nullptr, &hints, &found) == 0) {
            freeaddrinfo(found);
            return std::string("'") + host + "' has only IPv6 addresses: linnet is IPv4 only";
        }
        return std::string("cannot resolve '") + host + "' to an IPv4 address: " + why;
    }
    *out = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(found);
    return "";
}

std::string ErrorText(int result) {
    if (result >= 0) return std::to_string(result);
    // Every library failure is a negated errno; -1 also stands for "errno was
    // 0", which strerror cannot name.
    if (result == -1) return "unspecified error (-1)";
    return std::string(std::strerror(-result)) + " (" + std::to_string(result) + ")";
}

std::string VersionLine(const char* program) {
    return std::string(program) + " " + VersionText(LINNET_VERSION) + " (liblinnet " + VersionText(LinnetVersion()) +
           ")";
}

Parser::Parser(const char* program, const char* usage) : program_(program), usage_(usage) {}

Parser& Parser::Add(const char* name, bool takes_value, Need need, Setter set) {
    options_.push_back(Option{name, takes_value, need == kRequired, false, std::move(set)});
    return *this;
}

Parser& Parser::Flag(const char* name, bool* out) {
    return Add(name, false, kOptional, [out](const char*) {
        *out = true;
        return std::string();
    });
}

Parser& Parser::Number(const char* name, long long* out, long long lo, long long hi, Need need) {
    return Add(name, true, need, [out, lo, hi](const char* v) { return ParseNumber(v, lo, hi, out); });
}

Parser& Parser::Number(const char* name, int* out, int lo, int hi, Need need) {
    return Add(name, true, need, store_parsed(ParseNumber, out, lo, hi));
}

Parser& Parser::Number(const char* name, unsigned* out, unsigned lo, unsigned hi, Need need) {
    return Add(name, true, need, store_parsed(ParseNumber, out, lo, hi));
}

Parser& Parser::Seconds(const char* name, int* ms, int lo_ms, int hi_ms, Need need) {
    return Add(name, true, need, store_parsed(ParseSeconds, ms, lo_ms, hi_ms));
}

Parser& Parser::Port(const char* name, unsigned short* out, PortZero zero, Need need) {
    const long long lo = zero == kAnyPort ? 0 : 1;
    return Add(name, true, need, [out, lo](const char* v) {
        long long n = 0;
        std::string e = ParseNumber(v, lo, 65535, &n);
        if (e.empty()) *out = static_cast<unsigned short>(n);
        return e;
    });
}

Parser& Parser::Host(const char* name, unsigned int* out, Need need) {
    return Add(name, true, need, [out](const char* v) { return ResolveIPv4(v, out); });
}

Parser& Parser::Text(const char* name, std::string* out, Need need) {
    return Add(name, true, need, [out](const char* v) {
        *out = v;
        return std::string();
    });
}

Parser& Parser::Positional(const char* name, std::string* out, Need need) {
    positionals_.push_back(Option{name, true, need == kRequired, false, [out](const char* v) {
                                      *out = v;
                                      return std::string();
                                  }});
    return *this;
}

int Parser::Fail(const std::string& message) const {
    std::fprintf(stderr, "%s: %s\n%s", program_.c_str(), message.c_str(), usage_.c_str());
    return kUsageError;
}

int Parser::Parse(int argc, char** argv) {
    std::size_t next_positional = 0;
    bool options_done = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (!options_done && (arg == "-h" || arg == "--help")) {
            std::fputs(usage_.c_str(), stdout);
            return 0;
        }
        if (!options_done && arg == "--version") {
            std::printf("%s\n", VersionLine(program_.c_str()).c_str());
            return 0;
        }
        if (!options_done && arg == "--") {
            options_done = true;
            continue;
        }
        if (options_done || arg.empty() || arg[0] != '-' || arg == "-") {
            if (next_positional == positionals_.size()) return Fail("unexpected argument '" + arg + "'");
            Option& p = positionals_[next_positional++];
            p.seen = true;
            p.set(argv[i]);
            continue;
        }
        const std::size_t eq = arg.find('=');
        const std::string name = arg.substr(0, eq);
        Option* opt = nullptr;
        for (Option& o : options_)
            if (o.name == name) opt = &o;
        if (opt == nullptr) return Fail("unknown option '" + name + "'");
        const char* value = nullptr;
        if (!opt->takes_value) {
            if (eq != std::string::npos) return Fail(name + " takes no value");
        } else if (eq != std::string::npos) {
            value = argv[i] + eq + 1;
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            return Fail(name + " needs a value");
        }
        const std::string error = opt->set(value);
        if (!error.empty()) return Fail(name + ": " + error);
        opt->seen = true;
    }
    for (const Option& o : options_)
        if (o.required && !o.seen) return Fail(o.name + " is required");
    for (const Option& p : positionals_)
        if (p.required && !p.seen) return Fail(p.name + " is required");
    return kRun;
}

}  // namespace args
