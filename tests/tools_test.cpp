// The command-line tools as a user meets them: their argument handling
// (shared parser, examples/args.h), their messages and exit codes, and the
// echo client against well- and ill-behaved servers.
#include <linnet/version.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "args.h"
#include "iftable.h"
#include "json.h"
#include "json_read.h"
#include "names.h"
#include "routeview.h"
#include "net_helpers.h"
#include "run_tool.h"

namespace {

using Args = std::vector<std::string>;

std::string Version() {
    return std::to_string(LINNET_VERSION_MAJOR) + "." + std::to_string(LINNET_VERSION_MINOR) + "." +
           std::to_string(LINNET_VERSION_PATCH);
}

// A command line for a trace, each argument in brackets.
std::string Cmd(std::string cmd, const Args& args) {
    for (const std::string& a : args) cmd += " [" + a + "]";
    return cmd;
}

const char* const kTools[] = {"linnet-ifaces",      "linnet-echo-client",  "linnet-demo",
                              "linnet-echo-server", "linnet-block-server", "linnet-routes"};

TEST(ToolArguments, HelpOnStdoutAndVersionOfToolAndLibraryExitZero) {
    for (const char* name : kTools) {
        for (const char* opt : {"-h", "--help"}) {
            SCOPED_TRACE(std::string(name) + " " + opt);
            const tool::Result r = tool::Run(tool::Path(name), {opt});
            EXPECT_EQ(r.status, 0);
            EXPECT_EQ(r.out.rfind(std::string("usage: ") + name, 0), 0u) << r.out;
            EXPECT_NE(r.out.find("LINNET_LOG=N"), std::string::npos) << r.out;
            EXPECT_EQ(r.err, "");
        }
        SCOPED_TRACE(std::string(name) + " --version");
        const tool::Result r = tool::Run(tool::Path(name), {"--version"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, std::string(name) + " " + Version() + " (liblinnet " + Version() + ")\n");
        EXPECT_EQ(r.err, "");
    }
}

TEST(ToolArguments, EachMistakeIsNamedOnStderrWithTheUsageAndExitTwo) {
    const struct {
        const char* tool;
        Args args;
        const char* message;  // the first line on stderr, after "TOOL: "
    } rows[] = {
        {"linnet-ifaces", {"--bad"}, "unknown option '--bad'"},
        {"linnet-ifaces", {"lo", "eth0"}, "unexpected argument 'eth0'"},
        {"linnet-ifaces", {"--json=yes"}, "--json takes no value"},
        {"linnet-echo-client", {}, "--port is required"},
        {"linnet-echo-client", {"--port"}, "--port needs a value"},
        {"linnet-echo-client", {"--port", "70000"}, "--port: '70000' is out of range 1-65535"},
        {"linnet-echo-client", {"--port", ""}, "--port: '' is not a number (expected 1-65535)"},
        {"linnet-echo-client", {"--port", "1", "--size", "-1"}, "--size: '-1' is not a number (expected 0-67108864)"},
        {"linnet-echo-client", {"--port", "1", "--size", "67108865"}, "--size: '67108865' is out of range 0-67108864"},
        {"linnet-echo-client", {"--port", "1", "--count", "0"}, "--count: '0' is out of range 1-10000000"},
        {"linnet-echo-client",
         {"--port", "1", "--host", "::1"},
         "--host: '::1' is an IPv6 address: linnet is IPv4 only"},
        {"linnet-echo-server", {"--port", "70000"}, "--port: '70000' is out of range 0-65535"},
        {"linnet-echo-server", {"--max-block", "268435457"}, "--max-block: '268435457' is out of range 0-268435456"},
        {"linnet-echo-server", {"--deadline", "0"}, "--deadline: '0' is out of range 0.001-3600 s"},
        {"linnet-echo-server",
         {"--deadline", "1.0005"},
         "--deadline: '1.0005' is finer than a millisecond (expected 0.001-3600 s)"},
        {"linnet-echo-server", {"--idle", "-1"}, "--idle: '-1' is not a time in seconds (expected 0-86400 s)"},
        {"linnet-block-server", {"--idle", "86400.001"}, "--idle: '86400.001' is out of range 0-86400 s"},
        {"linnet-block-server", {"--deadline="}, "--deadline: '' is not a time in seconds (expected 0.001-3600 s)"},
        {"linnet-block-server", {"--max-block", "1k"}, "--max-block: '1k' is not a number (expected 0-268435456)"},
        {"linnet-routes", {"--main", "--all"}, "--main, --local and --all exclude each other"},
        {"linnet-routes", {"--snapshot-format", "--json"}, "--snapshot-format takes no other option"},
        {"linnet-routes", {"main"}, "unexpected argument 'main'"},
        {"linnet-demo", {"extra"}, "unexpected argument 'extra'"},
        {"linnet-demo", {"--fast"}, "unknown option '--fast'"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(Cmd(row.tool, row.args));
        const tool::Result r = tool::Run(tool::Path(row.tool), row.args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.err.substr(0, r.err.find('\n')), std::string(row.tool) + ": " + row.message);
        EXPECT_NE(r.err.find(std::string("\nusage: ") + row.tool), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

// A failure at run time: one line on stderr naming it, with the error's
// text, nothing on stdout, exit status 1.
TEST(ToolErrors, RunTimeFailureIsOneLineOnStderrAndExitOne) {
    unsigned short refused = 0, held = 0;
    testnet::Fd closed = testnet::BoundNotListening(&refused), holder = testnet::Listen(&held);
    const std::string r = std::to_string(refused), h = std::to_string(held);
    const struct {
        const char* tool;
        Args args;
        std::string err;
    } rows[] = {
        {"linnet-ifaces", {"nosuch0"}, "no interface named 'nosuch0'"},
        {"linnet-echo-client", {"--port", r}, "cannot connect to 127.0.0.1:" + r + ": Connection refused (-111)"},
        {"linnet-echo-server", {"--port", h}, "cannot listen on 127.0.0.1:" + h + ": Address already in use (-98)"},
        {"linnet-block-server", {"--port", h}, "cannot listen on 127.0.0.1:" + h + ": Address already in use (-98)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.tool);
        const tool::Result res = tool::Run(tool::Path(row.tool), row.args);
        EXPECT_EQ(res.status, 1);
        EXPECT_EQ(res.err, std::string(row.tool) + ": " + row.err + "\n");
        EXPECT_EQ(res.out, "");
    }
}

// One connection accepted on a thread; `serve` plays the server's part.
void WithServer(void (*serve)(int fd), const Args& extra, tool::Result* r) {
    unsigned short port = 0;
    testnet::Fd listener = testnet::Listen(&port);
    timeval limit{30, 0};  // accept gives up if the client never comes
    setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    std::thread server([&] {
        testnet::Fd c(accept(listener.get(), nullptr, nullptr));
        if (c.get() >= 0) serve(c.get());
    });
    Args args{"--port", std::to_string(port), "--host", "localhost"};
    args.insert(args.end(), extra.begin(), extra.end());
    *r = tool::Run(tool::Path("linnet-echo-client"), args);
    server.join();
}

// Framed blocks: a 4-byte length in host order, then the body.
bool ReadFrame(int fd, std::string* body) {
    std::uint32_t len = 0;
    if (!testnet::ReadAll(fd, &len, 4) || len > (1u << 20)) return false;
    body->assign(len, '\0');
    return len == 0 || testnet::ReadAll(fd, &(*body)[0], len);
}
bool WriteFrame(int fd, const std::string& body) {
    const std::uint32_t len = std::uint32_t(body.size());
    return testnet::WriteAll(fd, &len, 4) && testnet::WriteAll(fd, body.data(), body.size());
}

TEST(ToolErrors, EchoClientJudgesEachServerBehaviour) {
    const struct {
        const char* name;
        void (*serve)(int fd);
        Args extra;
        int status;
        const char* out;  // the start of the summary on stdout
        const char* err;  // stderr, exactly
    } rows[] = {
        {"empty blocks",
         [](int fd) {
             std::string b;
             while (ReadFrame(fd, &b) && WriteFrame(fd, b)) {}
         },
         {"--count", "2", "--size", "0"},
         0,
         "2 of 2 blocks of 0 bytes echoed intact",
         ""},
        {"one byte flipped in the second echo",
         [](int fd) {
             std::string b;
             for (int i = 0; ReadFrame(fd, &b); ++i) {
                 if (i == 1) b[10] ^= 1;
                 if (!WriteFrame(fd, b)) break;
             }
         },
         {"--count", "3", "--size", "64"},
         1,
         "2 of 3 blocks of 64 bytes echoed intact",
         "linnet-echo-client: block 2: the echo differs from what was sent\n"},
        {"echo longer than the block",
         [](int fd) {
             std::string b;
             if (ReadFrame(fd, &b)) WriteFrame(fd, b + "x");
         },
         {"--count", "1", "--size", "64"},
         1,
         "0 of 1 blocks",
         "linnet-echo-client: block 1: the echo announced a block above the size sent\n"},
        {"closes after the first echo",
         [](int fd) {
             std::string b;
             if (ReadFrame(fd, &b)) WriteFrame(fd, b);
             ReadFrame(fd, &b);
         },
         {"--count", "2", "--size", "64"},
         1,
         "1 of 2 blocks",
         "linnet-echo-client: block 2: the server ended the connection without echoing it\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        tool::Result r;
        WithServer(row.serve, row.extra, &r);
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.out.rfind(row.out, 0), 0u) << r.out;
        EXPECT_EQ(r.err, row.err);
    }
}

// The port a server printed in its first line, "listening on ADDR:PORT";
// 0 when the line is not that.
unsigned short ListeningPort(const std::string& line, const std::string& addr) {
    const std::string prefix = "listening on " + addr + ":";
    if (line.rfind(prefix, 0) != 0) return 0;
    long long port = 0;
    if (!args::ParseNumber(line.c_str() + prefix.size(), 1, 65535, &port).empty()) return 0;
    return static_cast<unsigned short>(port);
}

// Each server name on a port the kernel picks, printed in its first line,
// serving the echo client plain and compressed, with every option under
// both names; with --once it exits after its client, else on SIGTERM,
// having printed the client's end (its address and port) and the totals.
// The names differ only in the default --max-block: 2 MB pass the echo
// server's, not the block server's. Both ends name the likely cause of the
// two mistakes a user makes: a block above the server's --max-block, and a
// client compressing towards a plain server. (The client sends its body
// while the server may already have reset the connection: either step may
// be the one that fails.)
TEST(ToolServers, PortZeroIsPrintedAndServesTheEchoClient) {
    const std::string limits = "(by default 1048576 for linnet-block-server, 16777216 for linnet-echo-server)\n";
    const std::string server_why =
        "; likely: the block is above --max-block 1048576, or the client uses --compress "
        "and this server does not\n";
    const char* const kIntact = "3 of 3 blocks of 1000 bytes echoed intact";
    const Args k3 = {"--count", "3", "--size", "1000"}, k3z = {"--count", "3", "--size", "1000", "--compress"};
    const struct {
        const char* server;
        Args args;
        Args client;  // besides --port
        bool once;    // exits by itself after the client
        const char* summary;
        std::string client_why{}, server_why{};  // the ends of both sides' last lines, when the block is refused
    } rows[] = {
        {"linnet-echo-server", {"--port", "0", "--once"}, k3, true, kIntact},
        {"linnet-echo-server", {"--once", "--compress", "--deadline", "2.5", "--idle", "30"}, k3z, true, kIntact},
        {"linnet-echo-server", {"--host", "localhost", "--max-block", "1000"}, k3, false, kIntact},
        {"linnet-echo-server",
         {"--once"},
         {"--count", "1", "--size", "2000000"},
         true,
         "1 of 1 blocks of 2000000 bytes echoed intact"},
        {"linnet-block-server", {"--port=0", "--once"}, k3, true, kIntact},
        {"linnet-block-server", {"--compress", "--deadline", "2.5", "--idle", "30"}, k3z, false, kIntact},
        {"linnet-block-server",
         {"--once"},
         {"--count", "1", "--size", "2000000"},
         true,
         "0 of 1 blocks",
         "; likely: --size 2000000 is above the server's --max-block " + limits,
         server_why},
        {"linnet-block-server",
         {"--once"},
         {"--count", "1", "--compress"},
         true,
         "0 of 1 blocks",
         "; likely: the server runs without --compress, or --size 1024 is above the server's --max-block " + limits,
         server_why},
        {"linnet-block-server",
         {"--once", "--max-block", "50"},
         {"--count", "1", "--size", "100"},
         true,
         "0 of 1 blocks",
         "; likely: --size 100 is above the server's --max-block " + limits,
         "; likely: the block is above --max-block 50, or the client uses --compress and this server does not\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(Cmd(row.server, row.args) + Cmd(" client", row.client));
        tool::Background server(tool::Path(row.server), row.args);
        const std::string line = server.Line(10);
        const unsigned short port = ListeningPort(line, "127.0.0.1");
        ASSERT_NE(port, 0) << line;
        Args client{"--port", std::to_string(port)};
        client.insert(client.end(), row.client.begin(), row.client.end());
        const tool::Result c = tool::Run(tool::Path("linnet-echo-client"), client);
        const bool intact = row.client_why.empty();
        EXPECT_EQ(c.status, intact ? 0 : 1) << c.err;
        EXPECT_EQ(c.out.rfind(row.summary, 0), 0u) << c.out;
        if (!intact) {
            EXPECT_EQ(c.err.rfind("linnet-echo-client: block 1: the server ended the connection ", 0), 0u) << c.err;
            EXPECT_TRUE(c.err.size() > row.client_why.size() &&
                        c.err.compare(c.err.size() - row.client_why.size(), std::string::npos, row.client_why) == 0)
                << c.err;
        }
        if (!row.once) server.Signal(SIGTERM);
        const tool::Result r = server.Finish(10);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out.rfind("peer 127.0.0.1:", 0), 0u) << r.out;
        EXPECT_NE(r.out.find(intact ? ": closed (0) after " : ": too big (-2) after "), std::string::npos) << r.out;
        EXPECT_NE(r.out.find(row.server_why), std::string::npos) << r.out;
        EXPECT_NE(r.out.find("\n1 connections, "), std::string::npos) << r.out;
    }
}

// A frame header announcing `length` (host order), or its first `cut` bytes.
std::string Header(std::uint32_t length, size_t cut = 4) {
    return std::string(reinterpret_cast<const char*>(&length), cut);
}

// The block server's limits and deadlines as given on its command line: a
// peer breaking each one is ended for that reason, and a deadline of S
// seconds ends it after S seconds, not milliseconds or minutes.
TEST(ToolServers, BlockServerEndsEachPeerForTheLimitItBroke) {
    const struct {
        const char* name;
        Args args;
        std::string send;  // then the client waits for the server to end it
        const char* reason;
        long min_ms, max_ms;
    } rows[] = {
        {"block above --max-block", {"--max-block", "100"}, Header(101), "too big (-2)", 0, 5000},
        {"block at --max-block, then a partial header",
         {"--max-block", "100", "--deadline", "0.3"},
         Header(100) + std::string(100, 'x') + Header(7, 2),
         "block deadline (-110)",
         300,
         5000},
        {"partial header past --deadline", {"--deadline", "0.4"}, Header(10, 3), "block deadline (-110)", 400, 5000},
        {"silent past --idle", {"--idle", "0.4"}, "", "idle (-110)", 400, 5000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        tool::Background server(tool::Path("linnet-block-server"), row.args);
        const unsigned short port = ListeningPort(server.Line(10), "127.0.0.1");
        ASSERT_NE(port, 0);
        testnet::Fd peer = testnet::Dial(port);
        ASSERT_GE(peer.get(), 0);
        ASSERT_TRUE(testnet::WriteAll(peer.get(), row.send.data(), row.send.size()));
        const std::string line = server.Line(20);
        const std::string prefix =
            "peer 127.0.0.1:" + std::to_string(testnet::LocalPort(peer.get())) + ": " + row.reason + " after ";
        ASSERT_EQ(line.rfind(prefix, 0), 0u) << line;
        long long ms = -1;
        const std::string held = line.substr(prefix.size(), line.find(' ', prefix.size()) - prefix.size());
        EXPECT_EQ(args::ParseNumber(held.c_str(), 0, 1000000, &ms), "") << line;
        EXPECT_GE(ms, row.min_ms) << line;
        EXPECT_LT(ms, row.max_ms) << line;
        server.Signal(SIGTERM);
        EXPECT_EQ(server.Finish(10).status, 0);
    }
}

TEST(ArgsParser, NumbersAreWholeDecimalTextsWithinTheirRange) {
    const struct {
        const char* text;
        long long lo, hi;
        long long value;    // when accepted
        const char* error;  // "" when accepted
    } rows[] = {
        {"0", 0, 10, 0, ""},
        {"10", 0, 10, 10, ""},
        {"007", 0, 10, 7, ""},
        {"-3", -5, 5, -3, ""},
        {"-1", 0, 10, 0, "'-1' is not a number (expected 0-10)"},
        {"-6", -5, 5, 0, "'-6' is out of range -5-5"},
        {"1e3", 0, 5000, 0, "'1e3' is not a number (expected 0-5000)"},
        {"0x10", 0, 100, 0, "'0x10' is not a number (expected 0-100)"},
        {" 80", 0, 100, 0, "' 80' is not a number (expected 0-100)"},
        {"+80", 0, 100, 0, "'+80' is not a number (expected 0-100)"},
        {"80x", 0, 100, 0, "'80x' is not a number (expected 0-100)"},
        {"9223372036854775808", 0, 10, 0, "'9223372036854775808' is out of range 0-10"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        long long v = 12345;
        EXPECT_EQ(args::ParseNumber(row.text, row.lo, row.hi, &v), row.error);
        EXPECT_EQ(v, row.error[0] ? 12345 : row.value);
    }
}

TEST(ArgsParser, SecondsAreDecimalTextsToTheMillisecond) {
    const struct {
        const char* text;
        long long lo_ms, hi_ms;
        long long ms;       // when accepted
        const char* error;  // "" when accepted
    } rows[] = {
        {"10", 1, 3600000, 10000, ""},
        {"0.5", 1, 3600000, 500, ""},
        {"0.001", 1, 3600000, 1, ""},
        {"007.100", 1, 3600000, 7100, ""},
        {"3600", 1, 3600000, 3600000, ""},
        {"0", 0, 1000, 0, ""},
        {"1.50000", 0, 5000, 1500, ""},
        {"0.0005", 1, 1500, 0, "'0.0005' is finer than a millisecond (expected 0.001-1.5 s)"},
        {"99999999999999999999", 0, 1000, 0, "'99999999999999999999' is out of range 0-1 s"},
        {"1.", 0, 1000, 0, "'1.' is not a time in seconds (expected 0-1 s)"},
        {".5", 0, 1000, 0, "'.5' is not a time in seconds (expected 0-1 s)"},
        {" 1", 0, 1000, 0, "' 1' is not a time in seconds (expected 0-1 s)"},
        {"1s", 0, 5000, 0, "'1s' is not a time in seconds (expected 0-5 s)"},
        {"1e3", 0, 5000000, 0, "'1e3' is not a time in seconds (expected 0-5000 s)"},
        {"0.5.1", 0, 5000, 0, "'0.5.1' is not a time in seconds (expected 0-5 s)"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        long long ms = 12345;
        EXPECT_EQ(args::ParseSeconds(row.text, row.lo_ms, row.hi_ms, &ms), row.error);
        EXPECT_EQ(ms, row.error[0] ? 12345 : row.ms);
    }
}

TEST(ArgsParser, OptionsPositionalsAndDefaults) {
    unsigned short port = 7;
    unsigned int ip = 0;
    int count = 100;
    unsigned size = 1024;
    bool flag = false;
    std::string text = "default", name, second;
    args::Parser p("prog", "usage: prog\n");
    p.Port("--port", &port, args::kAnyPort)
        .Host("--host", &ip)
        .Number("--count", &count, 1, 50)
        .Number("--size", &size, 0u, 4096u)
        .Flag("--flag", &flag)
        .Text("--text", &text)
        .Positional("NAME", &name, args::kRequired)
        .Positional("SECOND", &second);
    const char* argv[] = {"prog",      "--port=0", "--host", "127.0.0.2", "--count", "3",
                          "--count=4", "--flag",   "--",     "-name-",    nullptr};
    EXPECT_EQ(p.Parse(10, const_cast<char**>(argv)), args::kRun);
    EXPECT_EQ(port, 0);
    EXPECT_EQ(ip, htonl(0x7f000002u));
    EXPECT_EQ(count, 4);  // the last one given
    EXPECT_EQ(size, 1024u);
    EXPECT_TRUE(flag);
    EXPECT_EQ(text, "default");
    EXPECT_EQ(name, "-name-");  // after "--" a dash starts no option
    EXPECT_EQ(second, "");

    args::Parser q("prog", "usage: prog\n");
    std::string required;
    q.Positional("NAME", &required, args::kRequired);
    const char* none[] = {"prog", nullptr};
    testing::internal::CaptureStderr();
    EXPECT_EQ(q.Parse(1, const_cast<char**>(none)), args::kUsageError);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "prog: NAME is required\nusage: prog\n");
}

TEST(ArgsParser, ResultsWithoutAnErrnoText) {
    EXPECT_EQ(args::ErrorText(-1), "unspecified error (-1)");
    EXPECT_EQ(args::ErrorText(3), "3");
}

TEST(InterfaceText, PrefixLengthsAndFlagNames) {
    const struct {
        unsigned mask;
        int prefix;
    } masks[] = {{0, 0}, {0x80000000u, 1}, {0xffffff00u, 24}, {0xfffffffeu, 31}, {0xffffffffu, 32}};
    for (const auto& m : masks) EXPECT_EQ(iftable::PrefixLength(m.mask), m.prefix) << std::hex << m.mask;
    const struct {
        unsigned long long flags;
        const char* text;
    } flags[] = {
        {0, "-"},
        {0x1, "UP"},
        {0x1 | 0x8 | 0x40, "UP,LOOPBACK,RUNNING"},
        {0x2 | 0x1000, "BROADCAST,MULTICAST"},
        {0x10 | 0x80, "POINTOPOINT,NOARP"},
        {0x8000, "DYNAMIC"},
        {0xffffffffffff0000ull, "-"},           // only the kernel's 16 bits count
        {0xffffffffffff8001ull, "UP,DYNAMIC"},  // sign-extended flags
    };
    for (const auto& f : flags) EXPECT_EQ(iftable::FlagText(f.flags), f.text) << std::hex << f.flags;
}

// Every string the writer quotes is RFC 8259 JSON that a real parser reads
// back as the same bytes, and writes again exactly as the writer did;
// invalid UTF-8 becomes U+FFFD and is reported.
TEST(JsonWriter, QuotesEveryByteSoAParserReadsItBack) {
    const struct {
        std::string in, quoted;
    } rows[] = {
        {"eth0", "\"eth0\""},
        {"q\"x\\y", "\"q\\\"x\\\\y\""},
        {"\b\f\n\r\t", "\"\\b\\f\\n\\r\\t\""},
        {std::string("a\x00\x01\x1b\x1f\x7f", 6), "\"a\\u0000\\u0001\\u001b\\u001f\x7f\""},
        {"u\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\"u\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},
    };
    json::Writer w;
    w.BeginArray();
    for (const auto& r : rows) {
        bool replaced = false;
        EXPECT_EQ(json::Quote(r.in, &replaced), r.quoted);
        EXPECT_FALSE(replaced);
        w.String(r.in);
    }
    std::string every;
    for (int c = 1; c < 0x80; ++c) every += char(c);
    w.BeginObject().Key(every).Null().Key("n").Number(-3).EndObject().EndArray();
    EXPECT_FALSE(w.Replaced());
    EXPECT_EQ(json::Query(w.Text(), "doc"), w.Text());
    EXPECT_EQ(json::Query(w.Text(), "doc[5][''.join(map(chr, range(1, 128)))]"), "null");
    EXPECT_THROW(json::Query("[\"a\x01\"]"), std::runtime_error);  // the parser is strict

    for (const char* bad : {"\xff", "\xc0\xaf", "\xed\xa0\x80", "\xe2\x82"}) {
        bool replaced = false;
        EXPECT_EQ(json::Quote(bad, &replaced).find("\xef\xbf\xbd"), 1u);
        EXPECT_TRUE(replaced);
    }
}

// A route message carrying what the tool cannot show lists it, so the tool
// can say so; the same message with only known parts lists nothing.
TEST(RouteView, WhatCannotBeShownIsListed) {
    struct Msg {
        nlmsghdr h;
        rtmsg r;
        unsigned char attrs[64];
    };
    auto build = [](std::vector<std::pair<unsigned short, uint32_t>> attrs, unsigned flags) {
        Msg m;
        std::memset(&m, 0, sizeof m);
        m.r.rtm_family = AF_INET;
        m.r.rtm_type = RTN_UNICAST;
        m.r.rtm_table = RT_TABLE_MAIN;
        m.r.rtm_protocol = RTPROT_BOOT;
        m.r.rtm_flags = flags;
        size_t at = 0;
        for (const auto& a : attrs) {
            rtattr ra = {8, a.first};
            std::memcpy(m.attrs + at, &ra, sizeof ra);
            std::memcpy(m.attrs + at + 4, &a.second, 4);
            at += 8;
        }
        m.h.nlmsg_len = static_cast<uint32_t>(NLMSG_LENGTH(sizeof(rtmsg)) + at);
        return m;
    };
    const struct {
        std::vector<std::pair<unsigned short, uint32_t>> attrs;
        unsigned flags;
        const char* unshown;  // "" for nothing
    } rows[] = {
        {{{RTA_DST, htonl(0xc0000200)}, {RTA_PRIORITY, 5}}, 0, ""},
        {{{RTA_DST, htonl(0xc0000200)}, {RTA_MARK, 5}}, 0, "attribute 16 (mark, 4 bytes)"},
        {{{RTA_DST, htonl(0xc0000200)}}, RTNH_F_TRAP, "flags 0x40"},
        {{{99, 1}}, 0, "attribute 99 (unknown, 4 bytes)"},
    };
    const names::Routing n("/nonexistent");
    for (const auto& row : rows) {
        Msg m = build(row.attrs, row.flags);
        const routeview::Route r = routeview::Parse(reinterpret_cast<unsigned char*>(&m), m.h.nlmsg_len);
        std::string got;
        for (const std::string& u : r.unshown) got += u;
        EXPECT_EQ(got, row.unshown);
        EXPECT_EQ(routeview::Text(r, n, RT_TABLE_MAIN).rfind(r.has_dst ? "192.0.2.0/0 " : "default ", 0), 0u);
    }
    Msg m = build({}, 0);
    EXPECT_EQ(routeview::Parse(reinterpret_cast<unsigned char*>(&m), 20).unshown.at(0), "message of 20 bytes");
}

// iproute2's name files: "NUMBER NAME" lines, decimal or hex, comments and
// anything out of bounds ignored.
TEST(RouteNames, FileLinesWithinBounds) {
    names::Table t("/nonexistent", "rt_protos", 255, {{12, "bird"}});
    t.Parse("# comment\n 42\tbabel # trailing\n0x10 dhcp\n300 toobig\n-1 neg\n7\n8 " + std::string(64, 'x') +
            "\n9 a\x01"
            "b\n12 mybird\n" +
            std::string(600, ' ') + "13 long\n");
    EXPECT_EQ(t.Of(42), "babel");
    EXPECT_EQ(t.Of(16), "dhcp");
    EXPECT_EQ(t.Of(12), "mybird");  // a later line wins
    for (unsigned v : {7u, 8u, 9u, 13u, 300u}) EXPECT_EQ(t.Of(v), std::to_string(v));
    EXPECT_EQ(t.Of(4, true), "0x04");
}

}  // namespace
