// kl-logd: a development log service. Listens on <root>/kelo/logs/logsocket (KL_ROOT, see
// kl/base/root.h), accepts any number of clients and prints each line they send with a time
// stamp, the client's pid and the topics of its source. Sources are muted by topic, from the
// command line and from commands on standard input; muted sources get a mute notice, so that
// their processes stop sending.
//
// A client that sends something that is not a record, or goes away, is dropped with one line
// on the error stream; the others are not affected.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kl/base/root.h"
#include "kl/log/log_format.h"
#include "kl/runner/runner.h"

namespace {

namespace lf = kl::logformat;

const char kUsage[] =
    "usage: kl-logd [--mute TOPIC]...\n"
    "\n"
    "A development log service. Listens on $KL_ROOT/kelo/logs/logsocket and prints every\n"
    "line that processes log through kl::lstream, one per output line:\n"
    "\n"
    "  HH:MM:SS.mmm pid PID topics T1,T2: TEXT\n"
    "\n"
    "PID is the client's process id (? when it cannot be learned); bytes of TEXT outside\n"
    "printable ASCII are shown as \\xNN.\n"
    "\n"
    "A source is muted while any of its topics is muted: its lines are not printed and its\n"
    "process is told to stop sending them (kl::lstream::isMuted() becomes true there).\n"
    "\n"
    "  --mute TOPIC   mute TOPIC (a number 1-65535) from the start; may be repeated\n"
    "  --help         print this text\n"
    "\n"
    "Commands on standard input, one per line, while it runs:\n"
    "  mute TOPIC     mute TOPIC\n"
    "  unmute TOPIC   unmute TOPIC\n"
    "  list           print the muted topics and every connected source\n"
    "\n"
    "A client that sends something that is not a record, or goes away, is dropped with one\n"
    "line on the error stream. SIGINT or SIGTERM stops the service and removes the socket.\n"
    "\n"
    "Exit status: 0 after a stop, 1 when the socket cannot be served, 2 a usage error.\n";

void complain(const std::string& text) { fprintf(stderr, "kl-logd: %s\n", text.c_str()); }

bool parseTopic(const char* text, unsigned short* topic) {
  char* end = nullptr;
  errno = 0;
  const unsigned long v = strtoul(text, &end, 10);
  if (text[0] < '0' || text[0] > '9' || *end != '\0' || errno != 0 || v == 0 || v > 65535) {
    return false;
  }
  *topic = static_cast<unsigned short>(v);
  return true;
}

std::string topicList(const std::vector<unsigned short>& topics) {
  std::string out;
  for (unsigned short t : topics) {
    if (!out.empty()) out += ',';
    out += std::to_string(t);
  }
  return out;
}

struct ClientSource {
  std::vector<unsigned short> topics;
  bool muted = false;
};

struct Client {
  int fd = -1;
  std::string pid = "?";
  std::vector<unsigned char> pending;  // bytes of a record not yet complete
  std::map<unsigned int, ClientSource> sources;
};

class LogService : public kl::Runner {
 public:
  explicit LogService(std::set<unsigned short> muted) : muted_(std::move(muted)) {}
  ~LogService() override;

  bool start();
  void stop() { stop_ = true; }

 private:
  static void onListen(void* ctx, int fd, unsigned int) {
    static_cast<LogService*>(ctx)->accept(fd);
  }
  static void onClient(void* ctx, int fd, unsigned int) { static_cast<LogService*>(ctx)->read(fd); }
  static void onInput(void* ctx, int fd, unsigned int) { static_cast<LogService*>(ctx)->input(fd); }
  static void onStop(void* ctx, int) { static_cast<LogService*>(ctx)->stop(); }

  bool bindSocket();
  void accept(int listenFd);
  void read(int fd);
  // Takes every complete record off the client's pending bytes. False, with *why set, for
  // bytes that are not a record.
  bool consume(Client& client, std::string* why);
  bool registration(Client& client, const unsigned char* p, unsigned int len, std::string* why);
  bool line(Client& client, const unsigned char* p, unsigned int len, std::string* why);
  void drop(Client& client, const std::string& why);
  void input(int fd);
  void command(const std::string& text);
  void setMuted(unsigned short topic, bool mute);
  bool shouldMute(const ClientSource& source) const;
  void notify(Client& client, unsigned int id, ClientSource& source, bool mute);
  void list();

  std::set<unsigned short> muted_;
  std::map<int, Client> clients_;
  std::string path_;
  int listenFd_ = -1;
  std::string inputLine_;
};

LogService::~LogService() {
  for (auto& entry : clients_) close(entry.first);
  if (listenFd_ >= 0) {
    close(listenFd_);
    unlink(path_.c_str());
  }
}

// Makes the socket's directory, refuses to take over a socket that another service still
// answers on, and replaces a stale one.
bool LogService::bindSocket() {
  path_ = kl::rootedPath(lf::kSocketPath);
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path_.size() >= sizeof addr.sun_path) {
    complain("socket path too long: " + path_);
    return false;
  }
  memcpy(addr.sun_path, path_.c_str(), path_.size());
  for (size_t slash = path_.find('/', 1); slash != std::string::npos;
       slash = path_.find('/', slash + 1)) {
    mkdir(path_.substr(0, slash).c_str(), 0755);
  }
  const int probe = socket(AF_UNIX, SOCK_STREAM, 0);
  const bool taken = connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(probe);
  if (taken) {
    complain("a log service is already listening on " + path_);
    return false;
  }
  unlink(path_.c_str());
  listenFd_ = socket(AF_UNIX, SOCK_STREAM, 0);
  if (listenFd_ < 0 || bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 64) != 0) {
    complain("cannot listen on " + path_ + ": " + strerror(errno));
    if (listenFd_ >= 0) close(listenFd_);
    listenFd_ = -1;
    return false;
  }
  fcntl(listenFd_, F_SETFL, O_NONBLOCK);
  return true;
}

bool LogService::start() {
  if (!bindSocket()) return false;
  addSocket(listenFd_, this, onListen, POLLIN);
  addSocket(STDIN_FILENO, this, onInput, POLLIN);
  addSighandler(SIGINT, this, onStop, true);
  addSighandler(SIGTERM, this, onStop, true);
  printf("kl-logd: listening on %s\n", path_.c_str());
  fflush(stdout);
  return true;
}

void LogService::accept(int listenFd) {
  for (;;) {
    const int fd = ::accept(listenFd, nullptr, nullptr);
    if (fd < 0) return;
    fcntl(fd, F_SETFL, O_NONBLOCK);
    Client& client = clients_[fd];
    client.fd = fd;
    ucred cred;
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 && cred.pid > 0) {
      client.pid = std::to_string(cred.pid);
    }
    addSocket(fd, this, onClient, POLLIN);
  }
}

void LogService::read(int fd) {
  auto found = clients_.find(fd);
  if (found == clients_.end()) return;
  Client& client = found->second;
  unsigned char buf[65536];
  const ssize_t n = ::read(fd, buf, sizeof buf);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    drop(client, client.pending.empty()
                     ? std::string("went away")
                     : "went away inside a record (" + std::to_string(client.pending.size()) +
                           " bytes dropped)");
    return;
  }
  client.pending.insert(client.pending.end(), buf, buf + n);
  std::string why;
  const bool ok = consume(client, &why);
  fflush(stdout);
  if (!ok) drop(client, why);
}

bool LogService::consume(Client& client, std::string* why) {
  const unsigned char* p = client.pending.data();
  size_t left = client.pending.size();
  bool ok = true;
  while (ok && left >= lf::kLineHeader) {
    const unsigned int len = kl::loadHost16(p);
    if (len < lf::kLineHeader) {
      *why = "sent a record of length " + std::to_string(len);
      return false;
    }
    if (left < len) break;
    ok = kl::loadHost16(p + 2) == 0 ? registration(client, p, len, why) : line(client, p, len, why);
    p += len;
    left -= len;
  }
  client.pending.erase(client.pending.begin(), client.pending.end() - static_cast<long>(left));
  return ok;
}

bool LogService::registration(Client& client, const unsigned char* p, unsigned int len,
                              std::string* why) {
  const unsigned int id = kl::loadHost16(p + 6);
  if (len < lf::kRegistrationHeader || len % 2 != 0 || kl::loadHost16(p + 4) != 0 || id == 0) {
    *why = "sent a malformed registration (length " + std::to_string(len) + ")";
    return false;
  }
  ClientSource& source = client.sources[id];
  source.topics.clear();
  for (unsigned int at = lf::kRegistrationHeader; at < len; at += 2) {
    source.topics.push_back(kl::loadHost16(p + at));
  }
  source.muted = false;
  if (shouldMute(source)) notify(client, id, source, true);
  return true;
}

bool LogService::line(Client& client, const unsigned char* p, unsigned int len, std::string* why) {
  const unsigned int id = kl::loadHost16(p + 2);
  auto found = client.sources.find(id);
  if (found == client.sources.end()) {
    *why = "sent a line for unregistered source " + std::to_string(id);
    return false;
  }
  if (len - lf::kLineHeader > lf::kMaxText) {
    *why = "sent a line of " + std::to_string(len - lf::kLineHeader) + " bytes";
    return false;
  }
  // Lines already on their way when the notice went out are dropped here.
  if (found->second.muted) return true;
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm local;
  localtime_r(&now.tv_sec, &local);
  char stamp[16];
  strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
  std::string text;
  text.reserve(len);
  for (const unsigned char* c = p + lf::kLineHeader; c < p + len; ++c) {
    if (*c >= 0x20 && *c < 0x7f) {
      text += static_cast<char>(*c);
    } else {
      char hex[5];
      snprintf(hex, sizeof hex, "\\x%02x", *c);
      text += hex;
    }
  }
  printf("%s.%03ld pid %s topics %s: %s\n", stamp, now.tv_nsec / 1000000, client.pid.c_str(),
         topicList(found->second.topics).c_str(), text.c_str());
  return true;
}

void LogService::drop(Client& client, const std::string& why) {
  complain("client pid " + client.pid + " " + why + ", dropped");
  const int fd = client.fd;
  removeSocket(fd);
  close(fd);
  clients_.erase(fd);
}

void LogService::input(int fd) {
  char buf[512];
  const ssize_t n = ::read(fd, buf, sizeof buf);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    removeSocket(fd);  // standard input closed: carry on without commands
    return;
  }
  inputLine_.append(buf, static_cast<size_t>(n));
  for (size_t eol = inputLine_.find('\n'); eol != std::string::npos; eol = inputLine_.find('\n')) {
    command(inputLine_.substr(0, eol));
    inputLine_.erase(0, eol + 1);
  }
  if (inputLine_.size() > 4096) {
    complain("command line too long, ignored");
    inputLine_.clear();
  }
  fflush(stdout);
}

void LogService::command(const std::string& text) {
  char verb[16] = "";
  char arg[32] = "";
  char extra[2] = "";
  const int fields = sscanf(text.c_str(), "%15s %31s %1s", verb, arg, extra);
  unsigned short topic = 0;
  if (fields <= 0) return;  // an empty line
  if (fields == 1 && strcmp(verb, "list") == 0) {
    list();
  } else if (fields == 2 && (strcmp(verb, "mute") == 0 || strcmp(verb, "unmute") == 0) &&
             parseTopic(arg, &topic)) {
    setMuted(topic, verb[0] == 'm');
  } else {
    complain("bad command '" + text + "' (mute TOPIC, unmute TOPIC or list)");
  }
}

void LogService::setMuted(unsigned short topic, bool mute) {
  if (mute) {
    muted_.insert(topic);
  } else {
    muted_.erase(topic);
  }
  printf("kl-logd: topic %u %s\n", topic, mute ? "muted" : "unmuted");
  for (auto& entry : clients_) {
    for (auto& source : entry.second.sources) {
      const bool want = shouldMute(source.second);
      if (want != source.second.muted) notify(entry.second, source.first, source.second, want);
    }
  }
}

bool LogService::shouldMute(const ClientSource& source) const {
  for (unsigned short t : source.topics) {
    if (muted_.count(t) != 0) return true;
  }
  return false;
}

// A notice that does not fit into the client's socket is lost; the lines of the source are
// still filtered here.
void LogService::notify(Client& client, unsigned int id, ClientSource& source, bool mute) {
  source.muted = mute;
  printf("kl-logd: pid %s source %u topics %s %s\n", client.pid.c_str(), id,
         topicList(source.topics).c_str(), mute ? "muted" : "unmuted");
  unsigned char notice[lf::kNoticeLength];
  lf::encodeNotice(notice, static_cast<uint16_t>(id), mute);
  if (write(client.fd, notice, sizeof notice) != static_cast<ssize_t>(sizeof notice)) {
    complain("could not send a notice to client pid " + client.pid + ": " + strerror(errno));
  }
}

void LogService::list() {
  std::vector<unsigned short> muted(muted_.begin(), muted_.end());
  printf("kl-logd: muted topics: %s\n", muted.empty() ? "none" : topicList(muted).c_str());
  for (const auto& entry : clients_) {
    for (const auto& source : entry.second.sources) {
      printf("kl-logd: pid %s source %u topics %s%s\n", entry.second.pid.c_str(), source.first,
             topicList(source.second.topics).c_str(), source.second.muted ? " (muted)" : "");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::set<unsigned short> muted;
  for (int i = 1; i < argc; ++i) {
    unsigned short topic = 0;
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      fputs(kUsage, stdout);
      return 0;
    } else if (strcmp(argv[i], "--mute") == 0) {
      if (i + 1 == argc) {
        complain("--mute needs a TOPIC (see --help)");
        return 2;
      }
      if (!parseTopic(argv[++i], &topic)) {
        complain(std::string("bad topic '") + argv[i] + "' (a number 1-65535)");
        return 2;
      }
      muted.insert(topic);
    } else {
      complain(std::string("unexpected argument '") + argv[i] + "' (see --help)");
      return 2;
    }
  }
  signal(SIGPIPE, SIG_IGN);
  LogService service(std::move(muted));
  if (!service.start()) return 1;
  service.run();
  service.shutdown();
  return 0;
}
