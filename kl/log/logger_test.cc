#include "kl/log/logger.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <sstream>

#include "kl/base/clock.h"
#include "kl/log/lstream.h"
#include "kl/runner/runner.h"
#include "kl/testing/hex.h"
#include "kl/testing/log_peer.h"
#include "kl/testing/temp_root.h"

namespace kl {
namespace {

using testing::Bytes;
using testing::lineRecord;
using testing::operator+;
using testing::regRecord;
using testing::toHex;
using testing::words;

// Each case runs in a child (kl::testing::TempRootTest::inChild): KL_ROOT names the
// fixture's root there, and the child has a process-wide Logger and a Runner of its own. The
// fixture plays the log service on a real listening socket at <root>/kelo/logs/logsocket.
class LogTest : public testing::TempRootTest {
 protected:
  void SetUp() override {
    TempRootTest::SetUp();
    makeDir("/kelo/logs");
  }
  void TearDown() override {
    if (listen_ >= 0) close(listen_);
    TempRootTest::TearDown();
  }

  void startService() {
    listen_ = testing::listenAt(path(logformat::kSocketPath));
    ASSERT_GE(listen_, 0);
  }

  // Runs body in a child with a Runner; fails here when an expectation failed there.
  void inLogChild(const std::function<void()>& body) {
    EXPECT_EQ(inChild([&] {
                Runner runner;
                body();
                return !HasFailure();
              }),
              0);
  }

  // The service's end of the Logger's current connection (child side).
  int service() {
    if (conn_ < 0) conn_ = testing::acceptWithin(listen_);
    return conn_;
  }
  // What the Logger has sent since the last call.
  Bytes received() { return testing::drain(service()); }
  void send(const Bytes& bytes) { ASSERT_TRUE(testing::writeAll(service(), bytes)); }
  // Lets the Logger read what the service sent: waits for it, then runs one loop pass.
  void deliver() {
    ASSERT_TRUE(testing::waitReadable(Logger::getLogger()->socket(), 2000));
    getRunner()->runSocks(getJiffies());
  }
  // The service goes away and comes back on a fresh socket.
  void restartService() {
    close(conn_);
    conn_ = -1;
    close(listen_);
    startService();
  }

  int listen_ = -1;
  int conn_ = -1;
};

// --- the records ---------------------------------------------------------------------

// The records are in host order: big-endian on the device, little-endian here. The expected
// bytes are written out for both so that the PowerPC run checks the device's layout.
TEST(LogFormat, RecordsAreInHostByteOrder) {
  const bool big = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
  EXPECT_EQ(toHex(logformat::encodeRegistration(2, {0x0102, 7})),
            big ? "00 0C 00 00 00 00 00 02 01 02 00 07" : "0C 00 00 00 00 00 02 00 02 01 07 00");
  unsigned char line[6];
  logformat::encodeLine(line, 0x0103, "hi", 2);
  EXPECT_EQ(toHex(Bytes(line, line + 6)), big ? "00 06 01 03 68 69" : "06 00 03 01 68 69");
  unsigned char notice[6];
  logformat::encodeNotice(notice, 2, true);
  EXPECT_EQ(toHex(Bytes(notice, notice + 6)), big ? "00 06 00 02 00 01" : "06 00 02 00 01 00");
}

// --- no service, no runner -----------------------------------------------------------

TEST_F(LogTest, WithoutAServiceEachLineIsDroppedWithItsDiagnostics) {
  inLogChild([] {
    lstream log(1, 0);
    ::testing::internal::CaptureStderr();
    log << "first" << std::endl;
    const std::string first = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(first.find("could not connect to log: "), 0u) << first;
    ::testing::internal::CaptureStderr();
    log << "second" << std::endl;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "could not connect to log: No such file or directory\n"
              "dropping\n"
              "registeration failed, dropping a line\n");
    EXPECT_EQ(Logger::getLogger()->socket(), -1);
  });
}

TEST_F(LogTest, WithoutARunnerTheLoggerNeverConnects) {
  startService();
  EXPECT_EQ(inChild([] {
              ::testing::internal::CaptureStderr();
              Logger logger;
              const std::string text = ::testing::internal::GetCapturedStderr();
              return text == "no runner while connecting to log\n" && logger.socket() == -1;
            }),
            0);
}

// --- sources and lines ---------------------------------------------------------------

TEST_F(LogTest, SourcesAreNumberedInOrderOfFirstUse) {
  startService();
  inLogChild([this] {
    lstream a(5, 1, 0);
    lstream b(1, 0);
    lstream sameAsA(5, 1, 0);
    lstream reordered(1, 5, 0);
    a << "one" << std::endl;
    b << "two" << std::endl;
    sameAsA << "three" << std::endl;
    reordered << "four" << std::endl;
    a << "five" << std::endl;
    EXPECT_EQ(toHex(received()),
              toHex(regRecord(1, {5, 1}) + lineRecord(1, "one") + regRecord(2, {1}) +
                    lineRecord(2, "two") + lineRecord(1, "three") + regRecord(3, {1, 5}) +
                    lineRecord(3, "four") + lineRecord(1, "five")));
    const std::vector<Source*>& sources = Logger::getLogger()->sources();
    ASSERT_EQ(sources.size(), 3u);
    for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(sources[i]->id, i + 1);
  });
}

TEST_F(LogTest, TopicsFromAnArrayAreCutTo16Bits) {
  startService();
  inLogChild([this] {
    unsigned int topics[] = {0x10005, 9, 0, 4};
    lstream log(topics);
    log << "x" << std::flush;
    EXPECT_EQ(toHex(received()), toHex(regRecord(1, {5, 9}) + lineRecord(1, "x")));
  });
}

// Both constructors set up the same 256-byte buffer.
TEST_F(LogTest, LongLinesGoOutIn256BytePieces) {
  startService();
  inLogChild([this] {
    std::string text;
    for (int i = 0; i < 300; ++i) text += static_cast<char>('a' + i % 26);
    unsigned int topics[] = {2, 0};
    lstream fromArguments(2, 0);
    lstream fromArray(topics);
    for (lstream* log : {&fromArguments, &fromArray}) {
      *log << text << std::endl;
      EXPECT_EQ(toHex(received()),
                toHex((log == &fromArguments ? regRecord(1, {2}) : Bytes()) +
                      lineRecord(1, text.substr(0, 256)) + lineRecord(1, text.substr(256))));
    }
  });
}

TEST_F(LogTest, OneTrailingNewlineIsStripped) {
  startService();
  inLogChild([this] {
    lstream log(2, 0);
    struct Case {
      const char* written;
      const char* sent;
    };
    const Case cases[] = {{"abc\n\n", "abc\n"}, {"a\nb\n", "a\nb"}, {"abc", "abc"}, {"\n", ""}};
    log << "start" << std::flush;
    received();
    for (const Case& c : cases) {
      SCOPED_TRACE(c.written);
      log << c.written << std::flush;
      EXPECT_EQ(toHex(received()), toHex(lineRecord(1, c.sent)));
    }
    log << std::flush;  // nothing held: nothing sent
    EXPECT_TRUE(received().empty());
  });
}

TEST_F(LogTest, DestroyingAStreamSendsWhatItHolds) {
  startService();
  inLogChild([this] {
    { lstream(4, 0) << "unfinished"; }
    EXPECT_EQ(toHex(received()), toHex(regRecord(1, {4}) + lineRecord(1, "unfinished")));
  });
}

// --- mute notices --------------------------------------------------------------------

TEST_F(LogTest, MuteNoticesSilenceASourceUntilUnmuted) {
  startService();
  inLogChild([this] {
    std::ostringstream echoed;
    lstream one(1, 0);
    lstream two(2, 0);
    lstream twoEchoed(echoed, 2, 0);
    lstream fresh(2, 0);  // never flushed: has no source yet
    one << "a" << std::endl;
    two << "b" << std::endl;
    twoEchoed << "c" << std::endl;
    received();
    send(words({6, 2, 1}));
    deliver();
    EXPECT_FALSE(one.isMuted());
    EXPECT_TRUE(two.isMuted());
    EXPECT_FALSE(twoEchoed.isMuted());  // an echoed stream is never reported muted
    EXPECT_FALSE(fresh.isMuted());
    two << "dropped" << std::endl;
    twoEchoed << "echoed only" << std::endl;
    one << "sent" << std::endl;
    EXPECT_EQ(toHex(received()), toHex(lineRecord(1, "sent")));
    EXPECT_EQ(echoed.str(), "c\nechoed only\n");

    send(words({6, 2, 0}));
    deliver();
    EXPECT_FALSE(two.isMuted());
    two << "back" << std::endl;
    EXPECT_EQ(toHex(received()), toHex(lineRecord(2, "back")));
  });
}

TEST_F(LogTest, NoticesForUnknownSourcesAreIgnored) {
  startService();
  inLogChild([this] {
    lstream one(1, 0);
    one << "a" << std::endl;
    received();
    ::testing::internal::CaptureStderr();
    send(words({6, 0, 1}) + words({6, 2, 1}) + words({6, 1, 1}));
    deliver();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_TRUE(one.isMuted());
    EXPECT_GE(Logger::getLogger()->socket(), 0);
  });
}

// A bad notice closes the connection; the next line connects again and re-registers.
TEST_F(LogTest, BadNoticesCloseTheConnection) {
  struct Case {
    const char* name;
    Bytes notice;
    const char* diagnostic;
  };
  const Case cases[] = {
      {"length 7", words({7, 1, 1}) + Bytes{0}, "msg has bad len, dropping\n"},
      {"8 bytes read", words({6, 1, 1, 6}), "msg too short, dropping\n"},
      {"5 bytes read", Bytes{6, 0, 1, 0, 1}, "msg too short, dropping\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    startService();
    inLogChild([&] {
      lstream one(1, 0);
      one << "a" << std::endl;
      received();
      ::testing::internal::CaptureStderr();
      send(c.notice);
      deliver();
      EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.diagnostic);
      EXPECT_EQ(Logger::getLogger()->socket(), -1);
      EXPECT_FALSE(one.isMuted());
      EXPECT_TRUE(testing::drain(service(), 2000).empty());  // the service sees the close
      close(conn_);
      conn_ = -1;
      one << "again" << std::endl;
      EXPECT_EQ(toHex(received()), toHex(regRecord(1, {1}) + lineRecord(1, "again")));
    });
    close(listen_);
    listen_ = -1;
  }
}

// A read that fails, even with EAGAIN (a wake-up with nothing to read), holds no notice: it
// closes the connection as a bad notice does.
TEST_F(LogTest, AFailedReadIsABadNotice) {
  startService();
  inLogChild([this] {
    lstream one(1, 0);
    one << "a" << std::endl;
    received();
    ::testing::internal::CaptureStderr();
    Logger::onSocket(Logger::getLogger(), Logger::getLogger()->socket(), POLLIN);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "msg has bad len, dropping\n");
    EXPECT_EQ(Logger::getLogger()->socket(), -1);
  });
}

// connectToLog called directly starts a new connection: the old descriptor is not closed
// and the sources keep their mutes; they register again on the new connection.
TEST_F(LogTest, ADirectConnectKeepsMutes) {
  startService();
  inLogChild([this] {
    lstream one(1, 0);
    one << "a" << std::endl;
    received();
    send(words({6, 1, 1}));  // mute source 1
    deliver();
    ASSERT_TRUE(one.isMuted());
    const int old = Logger::getLogger()->socket();
    ::testing::internal::CaptureStderr();
    Logger::getLogger()->connectToLog();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "a connection that worked";
    EXPECT_NE(fcntl(Logger::getLogger()->socket(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(Logger::getLogger()->socket(), -1);
    EXPECT_NE(Logger::getLogger()->socket(), old);
    EXPECT_NE(fcntl(old, F_GETFD), -1) << "the old descriptor was closed";
    EXPECT_TRUE(one.isMuted());
    EXPECT_FALSE(Logger::getLogger()->sources()[0]->registered);
  });
}

// A long line sent directly goes out in pieces; when the connection is made anew between
// two of them, the source registers again before the next piece.
TEST_F(LogTest, EachPieceOfALongLineFollowsTheRegistrationRule) {
  startService();
  inLogChild([this] {
    Logger* logger = Logger::getLogger();
    Source* source = logger->registerSource({1});
    received();
    restartService();  // the Logger has not noticed: its first piece fails
    const std::string text(300, 'x');
    ::testing::internal::CaptureStderr();
    logger->log(source, text.data(), static_cast<unsigned int>(text.size()));
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(toHex(received()), toHex(regRecord(1, {1}) + lineRecord(1, std::string(44, 'x'))));
  });
}

TEST_F(LogTest, ACallbackForAnotherDescriptorIsAWrongAlarm) {
  startService();
  inLogChild([this] {
    lstream one(1, 0);
    one << "a" << std::endl;
    ::testing::internal::CaptureStderr();
    Logger::onSocket(Logger::getLogger(), service(), POLLIN);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "wrong alarm\n");
    EXPECT_GE(Logger::getLogger()->socket(), 0);
  });
}

// --- the service going away ----------------------------------------------------------

TEST_F(LogTest, AfterTheServiceRestartsTheFirstLineReRegisters) {
  startService();
  inLogChild([this] {
    lstream a(1, 0);
    lstream b(2, 0);
    a << "a" << std::endl;
    b << "b" << std::endl;
    received();
    restartService();
    ::testing::internal::CaptureStderr();
    deliver();  // end of file on the old connection
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "EOF\n");
    EXPECT_EQ(Logger::getLogger()->socket(), -1);
    b << "b2" << std::endl;
    b << "b3" << std::endl;
    a << "a2" << std::endl;
    EXPECT_EQ(toHex(received()),
              toHex(regRecord(2, {2}) + lineRecord(2, "b2") + lineRecord(2, "b3") +
                    regRecord(1, {1}) + lineRecord(1, "a2")));
  });
}

// Without a loop pass in between, the write to the closed connection fails: that line is
// lost, and the next one connects again.
TEST_F(LogTest, AWriteToAClosedServiceLosesOneLine) {
  startService();
  inLogChild([this] {
    lstream a(1, 0);
    a << "a" << std::endl;
    received();
    restartService();
    ::testing::internal::CaptureStderr();
    a << "lost" << std::endl;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "writeRaw failed: Broken pipe\nret=-1, len=8\ndopping line\n");
    EXPECT_EQ(Logger::getLogger()->socket(), -1);
    a << "kept" << std::endl;
    EXPECT_EQ(toHex(received()), toHex(regRecord(1, {1}) + lineRecord(1, "kept")));
  });
}

// --- a service that stops reading ----------------------------------------------------

class FullSocketTest : public LogTest {
 protected:
  // Connects with a small send buffer and fills it: the service never reads.
  void fill() {
    lstream(1, 0) << "connect" << std::endl;
    const int fd = Logger::getLogger()->socket();
    const int size = 4096;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
    const Bytes filler(512, 'f');
    while (write(fd, filler.data(), filler.size()) > 0) {
    }
  }
  static double msSince(const timeval& start) {
    timeval now;
    gettimeofday(&now, nullptr);
    return (now.tv_sec - start.tv_sec) * 1e3 + (now.tv_usec - start.tv_usec) / 1e3;
  }
};

TEST_F(FullSocketTest, ARecordWaitsThreeTimesThenIsDropped) {
  startService();
  inLogChild([this] {
    fill();
    timeval start;
    gettimeofday(&start, nullptr);
    ::testing::internal::CaptureStderr();
    lstream(1, 0) << "blocked" << std::endl;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "sleeping\nsleeping\nsleeping\ndopping line\n");
    EXPECT_GE(msSince(start), 300.0);
    EXPECT_GE(Logger::getLogger()->socket(), 0);  // a full socket is no reason to close
  });
}

TEST_F(FullSocketTest, APartialWriteReportsWhatWentOut) {
  startService();
  inLogChild([this] {
    fill();
    received();  // room for some, not all
    const Bytes big(256 * 1024, 'x');
    ::testing::internal::CaptureStderr();
    const unsigned int n = Logger::getLogger()->writeRaw(big.data(), big.size());
    const std::string text = ::testing::internal::GetCapturedStderr();
    EXPECT_GT(n, 0u);
    EXPECT_LT(n, big.size());
    EXPECT_EQ(text,
              "sleeping\nsleeping\nsleeping\npartial write written=" + std::to_string(n) + "\n");
  });
}

}  // namespace
}  // namespace kl
