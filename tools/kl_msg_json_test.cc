// kl-msg's JSON forms and introspect, end to end: the built kl-loader runs under a temporary
// root with the example objects service (process 5, handler 2: five objects "port1" to
// "port5", two a reply) and the built kl-msg talks to it, as a developer would. In a cross
// build all three run under the emulator.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "kl/message/message.h"
#include "kl/message/system.h"
#include "kl/testing/temp_root.h"
#include "tools/json_message.h"

namespace klmsg {
namespace {

// What a finished kl-msg printed, and how it ended (-1: killed or not exited normally).
struct Finished {
  std::string out;
  std::string err;
  int status = -1;
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

Json parsed(const std::string& line) {
  Json json;
  std::string error;
  EXPECT_TRUE(parseJson(line, &json, &error)) << error << ": " << line;
  return json;
}

kl::message messageOf(const std::string& line) {
  kl::message m;
  std::string error;
  EXPECT_TRUE(jsonTextToMessage(line, &m, &error)) << error << ": " << line;
  return m;
}

// Reads what arrives on `fd` into *text until end of file or `deadline` (CLOCK_MONOTONIC
// milliseconds); false at the deadline.
bool readAll(int fd, std::string* text, long long deadlineMs);

long long nowMs() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

class KlMsgJsonTest : public kl::testing::TempRootTest {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    TempRootTest::SetUp();
    ASSERT_TRUE(startLoader());
  }

  void TearDown() override {
    if (loaderPid_ > 0) {
      kill(loaderPid_, SIGTERM);
      int status = 0;
      waitpid(loaderPid_, &status, 0);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "kl-loader status " << status;
    }
    if (HasFailure()) std::cerr << "--- kl-loader's output:\n" << loaderLog() << "---\n";
    TempRootTest::TearDown();
  }

  std::string loaderLog() const {
    std::ifstream in(path("/loader.log"));
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  static std::vector<std::string> emulator() {
    std::istringstream text(KL_EMULATOR);
    std::vector<std::string> words;
    for (std::string word; text >> word;) words.push_back(word);
    return words;
  }

  // Runs `argv` (through the emulator, if any) under this root with the given descriptors as
  // its standard input, output and error.
  pid_t launch(const std::vector<std::string>& argv, int inFd, int outFd, int errFd) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      setenv("KL_ROOT", root_.c_str(), 1);
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      dup2(inFd, 0);
      dup2(outFd, 1);
      dup2(errFd, 2);
      std::vector<std::string> words = emulator();
      words.insert(words.end(), argv.begin(), argv.end());
      std::vector<char*> args;
      for (const std::string& arg : words) args.push_back(const_cast<char*>(arg.c_str()));
      args.push_back(nullptr);
      execvp(args[0], args.data());
      _exit(127);
    }
    return pid;
  }

  // Runs kl-msg with `args` and `input` on its standard input, to its end (killed after
  // 10 s).
  Finished msg(const std::vector<std::string>& args, const std::string& input = "") {
    int in[2], out[2], err[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
    std::vector<std::string> argv = {KL_MSG_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    const pid_t pid = launch(argv, in[0], out[1], err[1]);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    EXPECT_EQ(write(in[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(in[1]);
    Finished run;
    const long long deadline = nowMs() + 10000;
    const bool ended = readAll(out[0], &run.out, deadline) && readAll(err[0], &run.err, deadline);
    if (!ended) kill(pid, SIGKILL);
    int status = -1;
    waitpid(pid, &status, 0);
    close(out[0]);
    close(err[0]);
    run.status = ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
  }

  // Starts kl-loader with the objects service and waits until the service answers.
  bool startLoader() {
    std::vector<std::string> argv = {KL_LOADER_PATH};
    if (!emulator().empty()) argv.insert(argv.end(), {"--wrapper", KL_EMULATOR});
    argv.push_back(std::string(KL_OBJECTS_SERVICE_PATH) + " 2 5");
    const int log =
        open(path("/loader.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int none = open("/dev/null", O_RDONLY | O_CLOEXEC);
    loaderPid_ = launch(argv, none, log, log);
    close(none);
    close(log);
    for (long long deadline = nowMs() + 10000; nowMs() < deadline; usleep(50 * 1000)) {
      if (socketAccepts() && msg({"call", "5/2", "u32:SYS_CMD=CMD_NOOP"}).status == 0) return true;
    }
    return false;
  }

  bool socketAccepts() const {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, path("/ram/kelosock").c_str(), sizeof addr.sun_path - 1);
    const bool accepted = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return accepted;
  }

  // Whether the loader's output (the services' error stream) shows `text` within 5 s.
  bool logShows(const std::string& text) {
    for (long long deadline = nowMs() + 5000; nowMs() < deadline; usleep(20 * 1000)) {
      if (loaderLog().find(text) != std::string::npos) return true;
    }
    return false;
  }

  pid_t loaderPid_ = 0;
};

bool readAll(int fd, std::string* text, long long deadlineMs) {
  for (;;) {
    const long long left = deadlineMs - nowMs();
    if (left <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    char chunk[65536];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n == 0) return true;
    if (n < 0 && errno != EINTR) return false;
    if (n > 0) text->append(chunk, static_cast<size_t>(n));
  }
}

// --- call ---------------------------------------------------------------------------------------

TEST_F(KlMsgJsonTest, CallJsonPrintsTheReplyAsOneLine) {
  const Finished run =
      msg({"call", "--json", "5/2", "{\"u32:SYS_CMD\":\"CMD_GETOBJ\",\"u32:STD_ID\":2}"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  // The reply comes back along the request's path; the request was kl-msg's first (id 0).
  EXPECT_EQ(run.out,
            "{\"u32[]:SYS_TO\":[],\"u32[]:SYS_FROM\":[5,2],\"u32:SYS_TYPE\":2,"
            "\"u32:SYS_REQID\":0,\"u32:STD_ID\":2,\"string:STD_DESCR\":\"port2\","
            "\"u32:0x1\":1500}\n");
}

TEST_F(KlMsgJsonTest, CallTakesItsFieldsAsAJsonObject) {
  Finished run =
      msg({"call", "5/2",
           "{\"u32:SYS_CMD\":\"CMD_SETOBJ\",\"u32:STD_ID\":3,\"string:STD_DESCR\":\"up\"}"});
  EXPECT_EQ(run.status, 0) << run.err;
  // Fields and JSON objects together, printed as the dump.
  run = msg({"call", "5/2", "u32:SYS_CMD=CMD_GETOBJ", "{\"u32:STD_ID\":3}"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find(" string [STD_DESCR]=up\n"), std::string::npos) << run.out;
  // What call --json prints, call takes back.
  run = msg({"call", "--json", "5/2", "{\"u32:SYS_CMD\":\"CMD_GETOBJ\",\"u32:STD_ID\":4}"});
  kl::message object = messageOf(run.out);
  kl::cleanSys(object);
  object.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
  object.insert_string(kl::STD_DESCR, "again");
  std::string text;
  std::string error;
  ASSERT_TRUE(messageToJsonText(object, &text, &error)) << error;
  EXPECT_EQ(msg({"call", "5/2", text}).status, 0);
  run = msg({"call", "--json", "5/2", "{\"u32:SYS_CMD\":\"CMD_GETOBJ\",\"u32:STD_ID\":4}"});
  EXPECT_EQ(messageOf(run.out).get_string(kl::STD_DESCR, ""), "again");
}

// Five objects in three replies: one line each, whichever reply carried it.
TEST_F(KlMsgJsonTest, CallAllJsonPrintsOneObjectALine) {
  const Finished run = msg({"call", "--all", "--json", "5/2"});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::vector<std::string> lines = linesOf(run.out);
  ASSERT_EQ(lines.size(), 5u) << run.out;
  for (unsigned int id = 1; id <= 5; ++id) {
    EXPECT_EQ(lines[id - 1], "{\"u32:STD_ID\":" + std::to_string(id) +
                                 ",\"string:STD_DESCR\":\"port" + std::to_string(id) +
                                 "\",\"u32:0x1\":1500}");
  }
}

// --- list and listen ------------------------------------------------------------------------

TEST_F(KlMsgJsonTest, ListJsonPrintsOneProcessALine) {
  const Finished run = msg({"list", "--json"});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::vector<std::string> lines = linesOf(run.out);
  ASSERT_EQ(lines.size(), 2u) << run.out;  // the service and this kl-msg
  const Json service = parsed(lines[0]);
  EXPECT_EQ(service["id"], 5);
  EXPECT_EQ(service["state"], "running");
  EXPECT_TRUE(service["pid"].is_number_unsigned()) << lines[0];
  EXPECT_NE(service["program"].get<std::string>().find("objects_service"), std::string::npos);
  const Json self = parsed(lines[1]);
  EXPECT_GE(self["id"].get<unsigned int>(), 0x10000u);
  EXPECT_EQ(self["state"], "registered");
}

TEST_F(KlMsgJsonTest, ListenJsonPrintsEachNotificationAsOneLine) {
  int out[2], err[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(err, O_CLOEXEC), 0);
  const int none = open("/dev/null", O_RDONLY | O_CLOEXEC);
  const pid_t listener = launch({KL_MSG_PATH, "listen", "--json", "5/2"}, none, out[1], err[1]);
  close(none);
  close(out[1]);
  close(err[1]);
  ASSERT_TRUE(logShows("objects_service: subscriber"));
  EXPECT_EQ(msg({"call", "5/2", "u32:SYS_CMD=CMD_SETOBJ", "u32:STD_ID=2", "string:STD_DESCR=heard"})
                .status,
            0);
  std::string line;
  for (long long deadline = nowMs() + 5000; line.find('\n') == std::string::npos;) {
    pollfd p{out[0], POLLIN, 0};
    ASSERT_GT(poll(&p, 1, static_cast<int>(std::max(0LL, deadline - nowMs()))), 0) << line;
    char chunk[4096];
    const ssize_t n = read(out[0], chunk, sizeof chunk);
    ASSERT_GT(n, 0);
    line.append(chunk, static_cast<size_t>(n));
  }
  kill(listener, SIGINT);
  std::string rest, said;
  EXPECT_TRUE(readAll(out[0], &rest, nowMs() + 5000));
  EXPECT_TRUE(readAll(err[0], &said, nowMs() + 5000));
  int status = -1;
  waitpid(listener, &status, 0);
  close(out[0]);
  close(err[0]);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  // Standard output holds the notification and nothing else; the rest went to the error
  // stream.
  EXPECT_EQ(rest, "");
  EXPECT_EQ(said, "listening to 5/2\n");
  const kl::message n = messageOf(line.substr(0, line.find('\n')));
  EXPECT_EQ(n.get(kl::SYS_CMD, 0), kl::CMD_NOTIFY);
  const std::vector<kl::message::flat_message> objects = n.get_message_array(kl::STD_OBJS);
  ASSERT_EQ(objects.size(), 1u) << line;
  EXPECT_EQ(kl::message(objects[0]).get(kl::STD_ID, 0), 2u);
  EXPECT_EQ(kl::message(objects[0]).get_string(kl::STD_DESCR, ""), "heard");
}

// --- monitor ---------------------------------------------------------------------------------

// A monitor running in the background: its output so far, and a clean stop.
struct RunningMonitor {
  pid_t pid = -1;
  int out = -1;
  std::string text;
  // Reads what is there now.
  void take() {
    for (pollfd p{out, POLLIN, 0}; poll(&p, 1, 0) > 0;) {
      char chunk[4096];
      const ssize_t n = read(out, chunk, sizeof chunk);
      if (n <= 0) break;
      text.append(chunk, static_cast<size_t>(n));
    }
  }
  // Interrupts it; its exit status.
  int stop() {
    kill(pid, SIGINT);
    std::string rest;
    readAll(out, &rest, nowMs() + 5000);
    text += rest;
    close(out);
    int status = -1;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

class KlMsgMonitorTest : public KlMsgJsonTest {
 protected:
  // kl-msg monitor with `args`, running.
  RunningMonitor startMonitor(const std::vector<std::string>& args) {
    int out[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    const int none = open("/dev/null", O_RDWR | O_CLOEXEC);
    std::vector<std::string> argv = {KL_MSG_PATH, "monitor"};
    argv.insert(argv.end(), args.begin(), args.end());
    RunningMonitor m;
    m.pid = launch(argv, none, out[1], none);
    close(none);
    close(out[1]);
    m.out = out[0];
    return m;
  }
  // Calls 5/2 until `m` shows something: it is attached then. False after 5 s.
  bool attached(RunningMonitor* m) {
    for (long long deadline = nowMs() + 5000; m->text.empty() && nowMs() < deadline;) {
      msg({"call", "5/2", "u32:SYS_CMD=CMD_NOOP"});
      m->take();
    }
    return !m->text.empty();
  }
  // A capture at `capture` of a get and a get-all of 5/2, by kl-msg monitor --pcap.
  void captureGetAndGetAll(const std::string& capture) {
    RunningMonitor monitor = startMonitor({"--pcap", capture, "5/2"});
    ASSERT_TRUE(attached(&monitor)) << "the monitor shows nothing";
    EXPECT_EQ(msg({"call", "5/2", "u32:SYS_CMD=CMD_GETOBJ", "u32:STD_ID=2"}).status, 0);
    EXPECT_EQ(msg({"call", "5/2", "u32:SYS_CMD=CMD_GETALL"}).status, 0);
    usleep(200 * 1000);
    EXPECT_EQ(monitor.stop(), 0);
  }
};

TEST_F(KlMsgMonitorTest, MonitorsShowTheFramesTheirFiltersSelect) {
  RunningMonitor byCommand = startMonitor({"CMD_SETOBJ"});
  RunningMonitor byPath = startMonitor({"--json", "5/2"});
  // Both are attached once the later one shows a request it selects.
  ASSERT_TRUE(attached(&byPath)) << "the monitor shows nothing";
  usleep(200 * 1000);
  EXPECT_EQ(msg({"call", "5/2", "u32:SYS_CMD=CMD_SETOBJ", "u32:STD_ID=2", "string:STD_DESCR=seen"})
                .status,
            0);
  usleep(300 * 1000);
  EXPECT_EQ(byCommand.stop(), 0);
  EXPECT_EQ(byPath.stop(), 0);

  // The command filter: the set request, nothing else.
  EXPECT_NE(byCommand.text.find(" -> 5/2  request 0 CMD_SETOBJ\n"), std::string::npos)
      << byCommand.text;
  EXPECT_EQ(byCommand.text.find("CMD_NOOP"), std::string::npos) << byCommand.text;
  EXPECT_NE(byCommand.text.find("string [STD_DESCR]=seen"), std::string::npos);
  // The path filter, in JSON: every frame delivered along 5/2, the set request among them,
  // and the replies to them.
  std::istringstream lines(byPath.text);
  bool sawSet = false;
  for (std::string line; std::getline(lines, line);) {
    klmsg::Json j;
    std::string error;
    ASSERT_TRUE(klmsg::parseJson(line, &j, &error)) << line;
    const kl::message m = messageOf(j["message"].dump());
    if (kl::getType(m) == kl::TYPE_REPLY) {
      EXPECT_EQ(j["from"].get<unsigned int>(), 5u) << "a reply to a request shown: " << line;
    } else {
      EXPECT_EQ(j["to"].get<std::string>().rfind("5/2", 0), 0u) << line;
    }
    if (m.get(kl::SYS_CMD, 0) == kl::CMD_SETOBJ) {
      sawSet = true;
      EXPECT_GE(j["from"].get<unsigned int>(), 0x10000u);
      EXPECT_EQ(m.get_string(kl::STD_DESCR, ""), "seen");
    }
  }
  EXPECT_TRUE(sawSet) << byPath.text;
}

// A capture of the service's traffic, replayed: the same replies while nothing changed,
// the changed field named once an object was changed.
TEST_F(KlMsgMonitorTest, ACaptureReplaysAsARegressionTest) {
  const std::string capture = path("/traffic.pcap");
  captureGetAndGetAll(capture);
  std::ifstream in(capture, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ASSERT_GE(bytes.size(), 24u);
  EXPECT_EQ(bytes.substr(0, 4), std::string("\xd4\xc3\xb2\xa1", 4)) << "the pcap magic";
  EXPECT_EQ(bytes.substr(20, 4), std::string("\x93\0\0\0", 4)) << "link type 147";

  Finished same = msg({"replay", capture, "5/2"});
  EXPECT_EQ(same.status, 0) << same.out << same.err;
  EXPECT_NE(same.out.find("CMD_GETOBJ: the same reply"), std::string::npos) << same.out;
  EXPECT_NE(same.out.find("CMD_GETALL: the same reply"), std::string::npos) << same.out;
  EXPECT_NE(same.out.find(", 0 with differences"), std::string::npos) << same.out;

  EXPECT_EQ(
      msg({"call", "5/2", "u32:SYS_CMD=CMD_SETOBJ", "u32:STD_ID=2", "string:STD_DESCR=renamed"})
          .status,
      0);
  Finished changed = msg({"replay", capture, "5/2"});
  EXPECT_EQ(changed.status, 1);
  EXPECT_NE(changed.out.find("CMD_GETOBJ: a different reply\n"
                             "  string:STD_DESCR: recorded \"port2\", now \"renamed\"\n"),
            std::string::npos)
      << changed.out;
  EXPECT_NE(changed.out.find(", 2 with differences"), std::string::npos) << changed.out;
}

// Debian's tshark reads a capture of the example service with tools/wireshark/kl.lua and
// shows every field by name, type and value, nested messages and arrays opened.
TEST_F(KlMsgMonitorTest, TsharkDissectsACaptureWithTheLuaDissector) {
  if (system("tshark --version >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "tshark is not installed (make test installs it)";
  }
  const std::string capture = path("/traffic.pcap");
  captureGetAndGetAll(capture);
  const std::string command = "tshark -X lua_script:" KL_SOURCE_DIR "/tools/wireshark/kl.lua -r '" +
                              capture + "' -V 2>/dev/null";
  FILE* p = popen(command.c_str(), "r");
  ASSERT_NE(p, nullptr);
  std::string text;
  char chunk[4096];
  for (size_t n; (n = fread(chunk, 1, sizeof chunk, p)) > 0;) text.append(chunk, n);
  EXPECT_EQ(pclose(p), 0);
  for (const char* shown :
       {"kl message, ", "Field: u32[]:SYS_TO (1 elements)",
        "Field: u32:SYS_CMD = CMD_GETOBJ (0xfe0002)", "Field: u32:STD_ID = 2 (0x2)",
        "Field: string:STD_DESCR = \"port2\"", "Field: message[]:STD_OBJS (2 elements)",
        "Field: [1]", "Field: u32:0x1 = 1500 (0x5dc)", "Field: bool:SYS_REPLYEXP = true"}) {
    EXPECT_NE(text.find(shown), std::string::npos) << shown << "\n" << text;
  }
}

// The dissector carries kl-msg's names: the two must not drift apart.
TEST_F(KlMsgJsonTest, TheDissectorsNamesAreKlMsgs) {
  std::ifstream in(KL_SOURCE_DIR "/tools/wireshark/kl.lua");
  const std::string lua((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t begin = lua.find("-- names begin\n");
  const size_t end = lua.find("-- names end\n");
  ASSERT_NE(begin, std::string::npos);
  ASSERT_NE(end, std::string::npos);
  const std::string carried = lua.substr(begin + 15, end - begin - 15);
  EXPECT_EQ(msg({"names", "--lua"}).out, carried)
      << "run: kl-msg names --lua, and put its output between the markers of kl.lua";
}

TEST_F(KlMsgJsonTest, AFileThatIsNoCaptureIsOneLineAndStatusOne) {
  const struct {
    const char* name;
    std::string bytes;
  } cases[] = {
      {"text", "not a capture\n"},
      {"header cut", std::string("\xd4\xc3\xb2\xa1\x02\0\x04\0", 8)},
      {"another link type", std::string("\xd4\xc3\xb2\xa1\x02\0\x04\0", 8) + std::string(12, '\0') +
                                std::string("\x01\0\0\0", 4)},
      {"record cut", std::string("\xd4\xc3\xb2\xa1\x02\0\x04\0", 8) + std::string(12, '\0') +
                         std::string("\x93\0\0\0", 4) + std::string(8, '\0') +
                         std::string("\xff\0\0\0", 4) + std::string(4, '\0') + "abc"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::ofstream(path("/bad.pcap"), std::ios::binary) << c.bytes;
    const Finished run = msg({"replay", path("/bad.pcap"), "5/2"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("kl-msg: not a capture", 0), 0u) << run.err;
    EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
  }
}

TEST_F(KlMsgJsonTest, AMonitorFilterThatIsNoneIsAUsageError) {
  const Finished run = msg({"monitor", "5/x"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err.rfind("kl-msg: bad filter '5/x'", 0), 0u) << run.err;
}

// --- introspect ------------------------------------------------------------------------------

TEST_F(KlMsgJsonTest, IntrospectPrintsThePolicyTableAndTheObjectCount) {
  const Finished run = msg({"introspect", "5/2"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "5/2: policy table of 19 commands, with the rights bits a restricted sender needs\n"
            "  CMD_GETALL        0xfe0004  0x40        read\n"
            "  CMD_GETCOUNT      0xfe0015  0x40        read\n"
            "  CMD_ADDOBJ        0xfe0005  0x80        change\n"
            "  CMD_SETOBJ        0xfe0003  0x80        change\n"
            "  CMD_REMOVEOBJ     0xfe0006  0x80        change\n"
            "  CMD_MOVEOBJ       0xfe0007  0x80        change\n"
            "  CMD_GETOBJ        0xfe0002  0x40        read\n"
            "  CMD_SUBSCRIBE     0xfe0012  0x40        read\n"
            "  CMD_UNSUBSCRIBE   0xfe0013  0x40        read\n"
            "  CMD_NOTIFY        0xfe000b  0x80000000  unrestricted senders only\n"
            "  CMD_GET           0xfe000d  0x40        read\n"
            "  CMD_SET           0xfe000e  0x80        change\n"
            "  0xfe0008          0xfe0008  0x80        change\n"
            "  CMD_RESET         0xfe0016  0x80        change\n"
            "  CMD_POLL          0xfe0010  0x200       start/poll/cancel\n"
            "  CMD_START         0xfe000f  0x200       start/poll/cancel\n"
            "  CMD_CANCEL        0xfe0011  0x200       start/poll/cancel\n"
            "  CMD_GETPOLICIES   0xfe0001  0x40        read\n"
            "  CMD_NOOP          0xfe0000  0x40        read\n"
            "objects: 5 (STD_OBJ_COUNT of CMD_GETALL; CMD_GETCOUNT: std failure: not "
            "implemented (3))\n");
}

TEST_F(KlMsgJsonTest, IntrospectJsonIsOneObject) {
  const Finished run = msg({"introspect", "--json", "5/2"});
  EXPECT_EQ(run.status, 0) << run.err;
  ASSERT_EQ(linesOf(run.out).size(), 1u) << run.out;
  const Json handler = parsed(run.out);
  EXPECT_EQ(handler["path"], "5/2");
  ASSERT_EQ(handler["policies"].size(), 19u);
  EXPECT_EQ(jsonText(handler["policies"][0]),
            "{\"command\":\"CMD_GETALL\",\"code\":16646148,\"bits\":64,\"allowed\":true}");
  EXPECT_EQ(jsonText(handler["policies"][12]),
            "{\"command\":\"0xfe0008\",\"code\":16646152,\"bits\":128,\"allowed\":true}");
  EXPECT_EQ(handler["objects"], 5);
  EXPECT_EQ(handler["objectsFrom"], "CMD_GETALL");
}

TEST_F(KlMsgJsonTest, IntrospectOfTheLoaderListsItsProcesses) {
  Finished run = msg({"introspect", "1"});
  EXPECT_EQ(run.status, 0) << run.err;
  std::vector<std::string> lines = linesOf(run.out);
  ASSERT_EQ(lines.size(), 3u) << run.out;
  EXPECT_EQ(lines[0].substr(0, 28), "ID         STATE       PID  ");
  EXPECT_EQ(lines[1].substr(0, 18), "5          running");
  run = msg({"introspect", "--json", "1"});
  EXPECT_EQ(run.status, 0) << run.err;
  const Json loader = parsed(run.out);
  EXPECT_EQ(loader["path"], "1");
  ASSERT_EQ(loader["processes"].size(), 2u);
  EXPECT_EQ(loader["processes"][0]["id"], 5);
  EXPECT_EQ(loader["processes"][0]["state"], "running");
}

// --- bad input ------------------------------------------------------------------------------

struct BadCase {
  std::vector<std::string> args;
  std::string input;  // standard input
  std::string error;  // the one line on the error stream, without "kl-msg: "
  int status;
};

TEST_F(KlMsgJsonTest, BadInputGivesOneLineAndNothingElse) {
  const BadCase cases[] = {
      {{"call", "--json", "5/2", "{\"u32:SYS_CMD\":\"CMD_GETOBJ\","},
       "",
       "malformed JSON at line 1, column 29: syntax error while parsing object key - unexpected "
       "end of input; expected string literal",
       1},
      {{"call", "5/2", "{\"u32:SYS_CMD\":\"CMD_GETOBJ\",\"u32:STD_FOO\":1}"},
       "",
       "\"u32:STD_FOO\": unknown field name 'STD_FOO'",
       1},
      {{"call", "5/2", "{\"u32:SYS_CMD\":\"CMD_GETOBJ\",\"u32:STD_ID\":[2]}"},
       "",
       "\"u32:STD_ID\": expected a number from 0 to 4294967295",
       1},
      {{"encode", "--json"},
       "{\"bool:SYS_REPLYEXP\":\"yes\"}",
       "\"bool:SYS_REPLYEXP\": expected true or false",
       1},
      {{"encode", "--json", "-"},
       "[]",
       "expected a JSON object of fields, such as {\"u32:SYS_CMD\":\"CMD_GETOBJ\"}",
       1},
      {{"call", "--json", "5/2", "{\"u32:SYS_CMD\":\"CMD_GETOBJ\",\"u32:STD_ID\":9}"},
       "",
       "5/2: std failure: unknown id (4)",
       1},
      {{"introspect", "5/9"}, "", "5/9: std failure: broken path (2)", 1},
      {{"introspect", "--json", "99"}, "", "99: std failure: broken path (2)", 1},
      {{"introspect", "5/x"}, "", "bad path '5/x', expected like 5 or 5/3", 2},
      {{"introspect"}, "", "introspect needs one PATH (see kl-msg introspect --help)", 2},
      {{"list", "--jsn"}, "", "list takes no arguments but --json", 2},
  };
  for (const BadCase& c : cases) {
    SCOPED_TRACE(c.args.back());
    const Finished run = msg(c.args, c.input);
    EXPECT_EQ(run.status, c.status);
    EXPECT_EQ(run.err, "kl-msg: " + c.error + "\n");
    EXPECT_EQ(run.out, "");
  }
}

// encode and decode take and give the same JSON through standard input and output.
TEST_F(KlMsgJsonTest, EncodeAndDecodeCarryJsonThroughPipes) {
  const std::string json =
      "{\"u32[]:SYS_TO\":[5,2],\"u32:SYS_CMD\":16646148,\"message:0x1\":{\"string:0x2\":\"x\","
      "\"u64:0x3\":\"18446744073709551615\"}}";
  const Finished encoded = msg({"encode", "--json"}, json);
  EXPECT_EQ(encoded.status, 0) << encoded.err;
  const Finished decoded = msg({"decode", "--json"}, encoded.out);
  EXPECT_EQ(decoded.status, 0) << decoded.err;
  EXPECT_EQ(decoded.out, json + "\n");
}

}  // namespace
}  // namespace klmsg
