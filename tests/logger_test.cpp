#include <linnet/logger.h>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include <string>

#include "capture_host.h"
#include "logger/log.h"

static const char kLogFile[] = "source/logger_test";

namespace {

void EmitAt(int level, const char* text) {
    boost::shared_ptr<logger::LinuxLogMessage> m(
        new logger::LinuxLogMessage("Emit", "source/x", 42, level));
    *m << text;
}

}  // namespace

TEST(LinuxLogMessage, OriginIsBareNameUpToLevel3AndLocatedAbove) {
    capture::Scope scope;
    EmitAt(3, "misuse");
    EmitAt(4, "unusual");
    EmitAt(11, "trace");
    const auto r = capture::Records();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].origin, "Emit");
    EXPECT_EQ(r[0].level, 3);
    EXPECT_EQ(r[0].text, "misuse");
    EXPECT_EQ(r[1].origin, "Emit: [source/x:42]");
    EXPECT_EQ(r[2].origin, "Emit: [source/x:42]");
    EXPECT_EQ(r[2].level, 11);
}

TEST(LinuxLogMessage, LongPrefixIsCutAt255AndTerminated) {
    capture::Scope scope;
    const std::string longname(400, 'f');
    { logger::LinuxLogMessage m(longname.c_str(), "source/x", 7, 5); m << "x"; }
    logger::detail::Line(longname.c_str(), "source/x", 7, 5) << "x";  // the library's own path
    logger::detail::Line("Poll", "source/socket", -3, 11) << "y";
    const auto r = capture::Records();
    ASSERT_EQ(r.size(), 3u);
    EXPECT_EQ(r[0].origin, longname.substr(0, 255));
    EXPECT_EQ(r[1].origin, r[0].origin);
    EXPECT_EQ(r[2].origin, "Poll: [source/socket:-3]");
}

TEST(LinuxLogMessage, EmptyMessageStillReachesTheSinkOnce) {
    capture::Scope scope;
    { logger::LinuxLogMessage m("Quiet", "source/x", 1, 11); }
    const auto r = capture::Records();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].text, "");
}

TEST(LinuxLogMessage, TextIsPassedAsTheFormatUnescaped) {
    capture::Scope scope;
    EmitAt(11, "100%% done");
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::Records()[0].text, "100% done");
}

TEST(LogStyles, FormattedStyleAsksFirstStreamStyleNever) {
    capture::Scope scope(0);  // dbg_can_log answers 0 for every level
    LOG_FORMAT("Listen", 11, "listening on fd_ = %d", 5);
    EXPECT_TRUE(capture::Records().empty());
    EXPECT_EQ(capture::CanLogCalls(), 1);
    LOG_STREAM(11) << "polling fd_ " << 5;
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::CanLogCalls(), 1);  // stream style never asks
    EXPECT_EQ(capture::Records()[0].text, "polling fd_ 5");
    EXPECT_NE(capture::Records()[0].origin.find("[source/logger_test:"), std::string::npos);

    capture::Start(11);
    LOG_FORMAT("Listen", 11, "listening on fd_ = %d", 5);
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::Records()[0].origin, "Listen");
    EXPECT_EQ(capture::Records()[0].text, "listening on fd_ = 5");
}

TEST(LogStyles, NullTextPutsTheStreamInItsFailedState) {
    capture::Scope scope;
    const char* none = nullptr;
    LOG_STREAM(11) << "binding fd_ " << 3 << " to " << none << ":" << 80;
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::Records()[0].text, "binding fd_ 3 to ");
}

// The library renders stream-style messages without a std::ostream; every
// insertion must read exactly as the stream would render it.
TEST(LogStyles, StreamStyleRendersExactlyAsAnOstream) {
    int local = 0;
    const void* p = &local;
    const void* none = nullptr;
    const unsigned char raw = 'A';
    const char* text = "fd_ ";
    std::ostringstream expect;
    expect << text << -2147483647 - 1 << ' ' << 4294967295u << ' ' << -9223372036854775807LL << ' '
           << 18446744073709551615ULL << ' ' << static_cast<short>(-7) << ' '
           << static_cast<unsigned short>(65535) << ' ' << raw << ' ' << p << ' ' << none << ' '
           << true << ' ' << std::string("str") << ' ' << 0L;
    capture::Scope scope;
    LOG_STREAM(11) << text << -2147483647 - 1 << ' ' << 4294967295u << ' ' << -9223372036854775807LL
                   << ' ' << 18446744073709551615ULL << ' ' << static_cast<short>(-7) << ' '
                   << static_cast<unsigned short>(65535) << ' ' << raw << ' ' << p << ' ' << none
                   << ' ' << true << ' ' << std::string("str") << ' ' << 0L;
    ASSERT_EQ(capture::Records().size(), 1u);
    EXPECT_EQ(capture::Records()[0].text, expect.str());
}
