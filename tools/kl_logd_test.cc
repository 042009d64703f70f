// kl-logd, run as the built program under a temporary root, with its clients: raw sockets
// written by hand here, and the library's own lstream in a child process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
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

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// The command that runs kl-logd (under the emulator when cross-building), split into words.
std::vector<std::string> logdCommand() {
  std::vector<std::string> argv;
  std::istringstream words(KL_LOGD_COMMAND);
  for (std::string w; words >> w;) argv.push_back(w);
  return argv;
}

class LogdTest : public testing::TempRootTest {
 protected:
  void TearDown() override {
    if (pid_ > 0) stop();
    for (int fd : {input_, client_}) {
      if (fd >= 0) close(fd);
    }
    TempRootTest::TearDown();
  }

  // Starts kl-logd with `args`, its standard input a pipe held by the test and its output in
  // files under the root. Returns the pid.
  pid_t spawn(const std::vector<std::string>& args) {
    int in[2];
    EXPECT_EQ(pipe(in), 0);
    ++spawns_;
    const std::string out = outputFile(), err = errorFile();
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      setenv("KL_ROOT", root_.c_str(), 1);
      dup2(in[0], 0);
      dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
      dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
      std::vector<std::string> words = logdCommand();
      words.insert(words.end(), args.begin(), args.end());
      std::vector<char*> argv;
      for (std::string& w : words) argv.push_back(&w[0]);
      argv.push_back(nullptr);
      execvp(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    if (input_ >= 0) close(input_);
    input_ = in[1];
    return pid;
  }

  // Runs kl-logd to its end (at most 10 s); its exit status, or -1.
  int run(const std::vector<std::string>& args) {
    pid_ = spawn(args);
    return waitExit(10000);
  }

  // Starts kl-logd and waits until it listens.
  void start(const std::vector<std::string>& args = {}) {
    pid_ = spawn(args);
    ASSERT_TRUE(waitFor("listening on ")) << errors();
  }

  // SIGTERM, then its exit status (bounded wait; SIGKILL and -1 when it does not end).
  int stop() {
    kill(pid_, SIGTERM);
    return waitExit(5000);
  }

  int waitExit(int ms) {
    int status = 0;
    for (int waited = 0; waited < ms; waited += 10) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      }
      usleep(10000);
    }
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return -1;
  }

  // True when kl-logd's standard output (or error stream) holds `text` within 5 s.
  bool waitFor(const std::string& text, bool onErrors = false) {
    for (int waited = 0; waited < 5000; waited += 5) {
      if ((onErrors ? errors() : output()).find(text) != std::string::npos) return true;
      usleep(5000);
    }
    return false;
  }

  // The output files of the last kl-logd started.
  std::string outputFile() const { return path("/logd" + std::to_string(spawns_) + ".out"); }
  std::string errorFile() const { return path("/logd" + std::to_string(spawns_) + ".err"); }
  std::string output() { return readFile(outputFile()); }
  std::string errors() { return readFile(errorFile()); }
  void command(const std::string& text) {
    ASSERT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  int connectClient() { return testing::connectTo(path(logformat::kSocketPath)); }

  pid_t pid_ = -1;
  int input_ = -1;
  int client_ = -1;
  int spawns_ = 0;
};

TEST_F(LogdTest, PrintsEachLineWithTimePidAndTopics) {
  start();
  client_ = connectClient();
  ASSERT_GE(client_, 0);
  ASSERT_TRUE(testing::writeAll(client_, regRecord(1, {3, 7}) + lineRecord(1, "hello") +
                                             regRecord(2, {}) + lineRecord(2, "tab\there")));
  ASSERT_TRUE(waitFor("here"));
  const std::string pid = std::to_string(getpid());
  const std::regex expected("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} pid " + pid +
                            " topics 3,7: hello\n"
                            "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} pid " +
                            pid + " topics : tab\\\\x09here\n");
  EXPECT_TRUE(std::regex_search(output(), expected)) << output();
  EXPECT_EQ(stop(), 0);
  struct stat st;
  EXPECT_NE(stat(path(logformat::kSocketPath).c_str(), &st), 0);  // removed on the way out
}

// The library's own client, in a child: the muted source learns it and stops sending.
TEST_F(LogdTest, ATopicMutedOnTheCommandLineSilencesItsSources) {
  start({"--mute", "9"});
  EXPECT_EQ(inChild([this] {
              Runner runner;
              lstream muted(1, 9, 0);
              lstream plain(1, 0);
              muted << "before the notice" << std::endl;
              if (!testing::waitReadable(Logger::getLogger()->socket(), 5000)) return false;
              runner.runSocks(getJiffies());
              plain << "shown" << std::endl;
              muted << "hidden" << std::endl;
              writeFile("/client.pid", std::to_string(getpid()));
              return muted.isMuted() && !plain.isMuted();
            }),
            0);
  ASSERT_TRUE(waitFor("shown"));
  EXPECT_NE(output().find(" pid " + readFile(path("/client.pid")) + " topics 1: shown\n"),
            std::string::npos)
      << output();
  EXPECT_EQ(output().find("before the notice"), std::string::npos);
  EXPECT_EQ(output().find("hidden"), std::string::npos);
}

TEST_F(LogdTest, TopicsAreMutedAndUnmutedWhileItRuns) {
  start();
  client_ = connectClient();
  ASSERT_TRUE(testing::writeAll(client_, regRecord(1, {4, 5}) + lineRecord(1, "first")));
  ASSERT_TRUE(waitFor("first"));
  command("mute 5\n");
  EXPECT_EQ(toHex(testing::drain(client_, 5000)), toHex(words({6, 1, 1})));
  ASSERT_TRUE(testing::writeAll(client_, lineRecord(1, "quiet")));
  command("list\nfrob 5\nunmute 5\n");
  EXPECT_EQ(toHex(testing::drain(client_, 5000)), toHex(words({6, 1, 0})));
  ASSERT_TRUE(testing::writeAll(client_, lineRecord(1, "loud")));
  ASSERT_TRUE(waitFor("loud"));
  const std::string out = output();
  EXPECT_EQ(out.find("quiet"), std::string::npos);
  EXPECT_NE(out.find("kl-logd: muted topics: 5\nkl-logd: pid " + std::to_string(getpid()) +
                     " source 1 topics 4,5 (muted)\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(errors(), "kl-logd: bad command 'frob 5' (mute TOPIC, unmute TOPIC or list)\n");
}

// Each bad client is dropped with one line; a good client connected all along is served.
TEST_F(LogdTest, AClientSendingGarbageIsDroppedAlone) {
  struct Case {
    const char* name;
    Bytes bytes;
    std::string line;
  };
  const Case cases[] = {
      {"short length", words({2, 1}), "sent a record of length 2"},
      {"unregistered source", lineRecord(3, "x"), "sent a line for unregistered source 3"},
      {"odd registration", words({9, 0, 0, 1}) + Bytes{0},
       "sent a malformed registration (length 9)"},
      {"registration of id 0", words({8, 0, 0, 0}), "sent a malformed registration (length 8)"},
      {"long line", regRecord(1, {1}) + lineRecord(1, std::string(257, 'y')),
       "sent a line of 257 bytes"},
      {"vanished inside a record", words({10, 1, 0}),
       "went away inside a record (6 bytes dropped)"},
  };
  start();
  client_ = connectClient();
  ASSERT_TRUE(testing::writeAll(client_, regRecord(1, {2})));
  const std::string pid = std::to_string(getpid());
  int served = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const int bad = connectClient();
    ASSERT_TRUE(testing::writeAll(bad, c.bytes));
    if (c.line.rfind("went away", 0) == 0) {
      close(bad);
    } else {
      EXPECT_TRUE(testing::waitReadable(bad, 5000));  // closed by the service
      EXPECT_EQ(read(bad, nullptr, 0), 0);
      close(bad);
    }
    EXPECT_TRUE(waitFor("kl-logd: client pid " + pid + " " + c.line + ", dropped\n", true))
        << errors();
    const std::string text = "still served " + std::to_string(++served);
    ASSERT_TRUE(testing::writeAll(client_, lineRecord(1, text)));
    EXPECT_TRUE(waitFor(text));
  }
  const std::string lines = errors();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 6) << lines;
}

TEST_F(LogdTest, ASecondServiceOnTheSameSocketIsRefused) {
  start();
  const pid_t first = pid_;
  EXPECT_EQ(run({}), 1);
  EXPECT_EQ(errors(), "kl-logd: a log service is already listening on " +
                          path(logformat::kSocketPath) + "\n");
  pid_ = first;
}

// A usage error ends with status 2, as in the other tools.
TEST_F(LogdTest, BadArgumentsGetOneLineAndStatusTwo) {
  struct Case {
    std::vector<std::string> args;
    const char* line;
  };
  const Case cases[] = {
      {{"--mute", "0"}, "kl-logd: bad topic '0' (a number 1-65535)\n"},
      {{"--mute", "65536"}, "kl-logd: bad topic '65536' (a number 1-65535)\n"},
      {{"--mute", "-3"}, "kl-logd: bad topic '-3' (a number 1-65535)\n"},
      {{"--mute", "4x"}, "kl-logd: bad topic '4x' (a number 1-65535)\n"},
      {{"--mute"}, "kl-logd: --mute needs a TOPIC (see --help)\n"},
      {{"--verbose"}, "kl-logd: unexpected argument '--verbose' (see --help)\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    EXPECT_EQ(run(c.args), 2);
    EXPECT_EQ(errors(), c.line);
  }
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_EQ(output().find("usage: kl-logd [--mute TOPIC]...\n"), 0u);
}

}  // namespace
}  // namespace kl
