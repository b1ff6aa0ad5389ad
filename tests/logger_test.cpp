#include <linnet/logger.h>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "capture_host.h"
#include "logger/log.h"

static const char kLogFile[] = "source/logger_test";

TEST(LinuxLogMessage, OriginIsBareUpToLevel3LocatedAboveAndCutAt255) {
    capture::Scope scope;
    for (int level : {3, 4}) {
        boost::shared_ptr<logger::LinuxLogMessage> m(new logger::LinuxLogMessage("Emit", "source/x", 42, level));
        *m << "100% done";  // the collected text reaches a printf-style host as it is
    }
    const std::string longname(400, 'f');
    { logger::LinuxLogMessage m(longname.c_str(), "source/x", 7, 5); }  // empty: still emitted
    const auto r = capture::Records();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].origin, "Emit");
    EXPECT_EQ(r[0].level, 3);
    EXPECT_EQ(r[0].text, "100% done");
    EXPECT_EQ(r[1].origin, "Emit: [source/x:42]");
    EXPECT_EQ(r[2].origin, longname.substr(0, 255));
    EXPECT_EQ(r[2].text, "");
    // The library's own renderer cuts and terminates the same way.
    capture::Start();
    logger::detail::Line(longname.c_str(), "source/x", 7, 5) << "x";
    logger::detail::Line("Poll", "source/socket", -3, 11) << "y";
    ASSERT_EQ(capture::Records().size(), 2u);
    EXPECT_EQ(capture::Records()[0].origin, longname.substr(0, 255));
    EXPECT_EQ(capture::Records()[1].origin, "Poll: [source/socket:-3]");
}

TEST(LogStyles, FormattedStyleAsksFirstStreamStyleNever) {
    capture::Scope scope(0);  // dbg_can_log answers 0 for every level
    LOG_FORMAT("Listen", 11, "listening on fd_ = %d", 5);
    EXPECT_TRUE(capture::Records().empty());
    EXPECT_EQ(capture::CanLogCalls(), 1);
    LOG_STREAM(11) << "polling fd_ " << 5;
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::CanLogCalls(), 1);
    EXPECT_EQ(capture::Records()[0].text, "polling fd_ 5");
    EXPECT_EQ(capture::Records()[0].origin.find("TestBody: [source/logger_test:"), 0u);

    capture::Start(11);
    LOG_FORMAT("Listen", 11, "listening on fd_ = %d", 5);
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::Records()[0].origin, "Listen");
    EXPECT_EQ(capture::Records()[0].text, "listening on fd_ = 5");
}

// The library renders stream-style messages without a std::ostream; every
// insertion must read exactly as the stream would, a null text included
// (it fails the stream: nothing after it appears).
TEST(LogStyles, StreamStyleRendersExactlyAsAnOstream) {
    int local = 0;
    const void *p = &local, *none = nullptr;
    const unsigned char raw = 'A';
    const char* null_text = nullptr;
    std::ostringstream expect;
#define LINNET_ALL_KINDS(out)                                                                                          \
    out << "fd_ " << -2147483647 - 1 << ' ' << 4294967295u << ' ' << -9223372036854775807LL << ' '                     \
        << 18446744073709551615ULL << ' ' << static_cast<short>(-7) << ' ' << static_cast<unsigned short>(65535)       \
        << ' ' << raw << ' ' << p << ' ' << none << ' ' << true << ' ' << std::string("str") << ' ' << 0L << null_text \
        << " lost " << 80
    LINNET_ALL_KINDS(expect);
    capture::Scope scope;
    LINNET_ALL_KINDS(LOG_STREAM(11));
#undef LINNET_ALL_KINDS
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::Records()[0].text, expect.str());
    EXPECT_EQ(expect.str().find(" lost"), std::string::npos);
}

// Stream-style texts reach _debug as its format: every '%' is doubled, so a
// printf-style host prints the text exactly and reads no argument.
TEST(LogStyles, StreamStyleTextIsSafeAsAFormat) {
    const std::string texts[] = {
        "100% done", "proto %s %d %n", "%", "%%", "ends in %", std::string(300, '%'), std::string(511, '%') + "tail"};
    capture::Scope scope;
    for (const std::string& t : texts) {
        LOG_STREAM(11) << t;
        LOG_STREAM(3) << t;
        boost::shared_ptr<logger::LinuxLogMessage> m(new logger::LinuxLogMessage("Emit", "source/x", 1, 11));
        *m << t;
    }
    const auto r = capture::Records();
    ASSERT_EQ(r.size(), 3 * (sizeof texts / sizeof texts[0]));
    for (size_t i = 0; i < r.size(); ++i) {
        const std::string& t = texts[i / 3];
        // The library's own lines hold 511 characters; the public class any length.
        const std::string expect = i % 3 == 2 ? t : t.substr(0, 511);
        EXPECT_EQ(r[i].text, expect) << "record " << i;
    }
}

namespace {

// What the public message class renders for the same place: the reference
// each call site's kept origin must equal.
std::string ReferenceOrigin(const char* function, int line, int level) {
    capture::Start();
    { logger::LinuxLogMessage m(function, kLogFile, line, level); }
    const std::string origin = capture::Records().at(0).origin;
    capture::Start();
    return origin;
}

// Two call sites in one function, on lines of their own.
void TwoSites(int round, int* first_line, int* second_line) {
    *first_line = __LINE__ + 1;
    LOG_STREAM(11) << "first " << round;
    *second_line = __LINE__ + 1;
    LOG_STREAM(4) << "second " << round;
    LOG_STREAM(3) << "bare " << round;
}

// Hit for the first time by several threads at once.
void FreshSite(int* line) {
    *line = __LINE__ + 1;
    LOG_STREAM(11) << "fresh";
}

}  // namespace

// Each call site builds its origin once and keeps it: every message of a
// site, in every round, carries that site's own function, file and line,
// exactly as LinuxLogMessage renders them; a site never lends its origin
// to another, and a run-time origin (LOG_STREAM_AS) is never frozen.
TEST(LogStyles, EachCallSiteKeepsItsOwnOriginExactlyAsRendered) {
    int first = 0, second = 0;
    TwoSites(-1, &first, &second);  // learn the lines
    const std::string want_first = ReferenceOrigin("TwoSites", first, 11);
    const std::string want_second = ReferenceOrigin("TwoSites", second, 4);
    EXPECT_NE(want_first, want_second);
    capture::Scope scope;
    const char* const names[] = {"SetSndBufSize", "SetRcvBufSize"};
    for (int round = 0; round < 3; ++round) {
        TwoSites(round, &first, &second);
        LOG_STREAM_AS(names[round % 2], 11) << "as";
    }
    const auto r = capture::Records();
    ASSERT_EQ(r.size(), 12u);
    for (int round = 0; round < 3; ++round) {
        const auto* rec = &r[size_t(round) * 4];
        EXPECT_EQ(rec[0].origin, want_first) << "round " << round;
        EXPECT_EQ(rec[0].text, "first " + std::to_string(round));
        EXPECT_EQ(rec[1].origin, want_second) << "round " << round;
        EXPECT_EQ(rec[1].level, 4);
        EXPECT_EQ(rec[2].origin, "TwoSites");  // level 3: the bare function
        EXPECT_EQ(rec[3].origin.find(std::string(names[round % 2]) + ": [source/logger_test:"), 0u);
    }

    // A '%' inserted as a character is escaped like one inside a text.
    capture::Start();
    LOG_STREAM(11) << "rate " << 7 << '%';
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::Records()[0].text, "rate 7%");

    capture::Start();
    int line = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(FreshSite, &line);
    for (std::thread& t : threads) t.join();
    const auto fresh = capture::Records();
    const std::string want_fresh = ReferenceOrigin("FreshSite", line, 11);
    ASSERT_EQ(fresh.size(), 4u);
    for (const auto& rec : fresh) EXPECT_EQ(rec.origin, want_fresh);
}
