#include "tools/kl_msg_crash.h"

#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "kl/base/endian.h"
#include "tools/kl_msg_loader.h"

namespace klmsg {

namespace {

constexpr uint16_t kMachinePowerPc = 20;  // e_machine of a 32-bit PowerPC file

bool startsWith(const std::string& s, const char* prefix) {
  return s.compare(0, strlen(prefix), prefix) == 0;
}

bool parseHex(const std::string& text, uint64_t* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  *value = strtoull(text.c_str(), &end, 16);
  return end != nullptr && *end == '\0';
}

// "start-end perms offset dev inode [path]", executable mappings only.
bool parseMapping(const std::string& line, CrashMapping* m) {
  std::istringstream in(line);
  std::string range, perms, offset, dev, inode;
  if (!(in >> range >> perms >> offset >> dev >> inode)) return false;
  const size_t dash = range.find('-');
  if (dash == std::string::npos || perms.find('x') == std::string::npos) return false;
  if (!parseHex(range.substr(0, dash), &m->start) || !parseHex(range.substr(dash + 1), &m->end) ||
      !parseHex(offset, &m->offset)) {
    return false;
  }
  m->inode = strtoul(inode.c_str(), nullptr, 10);
  std::getline(in >> std::ws, m->path);
  return true;
}

bool isRegularFile(const std::string& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// A regular file below `dir` (at most `depth` directories down) whose name begins with
// `stem` (at the top level only) and whose inode is `inode`; "" when none is.
std::string findByInode(const std::string& dir, const std::string& stem, unsigned long inode,
                        int depth) {
  std::string found;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return found;
  for (dirent* e; found.empty() && (e = readdir(d)) != nullptr;) {
    const std::string name = e->d_name;
    if (name == "." || name == ".." || !startsWith(name, stem.c_str())) continue;
    const std::string path = dir + "/" + name;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) continue;
    if (S_ISREG(st.st_mode) && st.st_ino == inode) {
      found = path;
    } else if (S_ISDIR(st.st_mode) && depth > 0) {
      found = findByInode(path, "", inode, depth - 1);
    }
  }
  closedir(d);
  return found;
}

bool hasInode(const std::string& path, unsigned long inode) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_ino == inode;
}

// The file a mapping's path names. The report cuts a maps line at 100 bytes, so a path that
// is not a file is looked for by the mapping's inode: the executable, or a file below what
// is left of the path (the directory it names, or the entries of its parent that begin
// with its last part), two directories deep at most.
std::string mappedFile(const CrashMapping& m, const std::string& executable) {
  if (isRegularFile(m.path)) return m.path;
  if (m.path.empty() || m.path[0] != '/' || m.inode == 0) return std::string();
  if (hasInode(executable, m.inode)) return executable;
  struct stat st;
  if (stat(m.path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    return findByInode(m.path, "", m.inode, 2);
  }
  const size_t slash = m.path.rfind('/');
  return findByInode(slash == 0 ? "/" : m.path.substr(0, slash), m.path.substr(slash + 1), m.inode,
                     2);
}

// What the symbolizer needs of an ELF file: whether it is PowerPC, and its loadable
// segments, to turn a file offset into the file's own address.
struct ElfFile {
  bool ok = false;
  bool powerPc = false;
  struct Segment {
    uint64_t offset, vaddr, size;
  };
  std::vector<Segment> loads;

  // The file's address of file offset `off`, or false when no segment holds it.
  bool address(uint64_t off, uint64_t* vaddr) const {
    for (const Segment& s : loads) {
      if (off >= s.offset && off - s.offset < s.size) {
        *vaddr = off - s.offset + s.vaddr;
        return true;
      }
    }
    return false;
  }
};

ElfFile readElf(const std::string& path) {
  ElfFile elf;
  std::ifstream in(path, std::ios::binary);
  unsigned char h[64] = {};
  if (!in.read(reinterpret_cast<char*>(h), sizeof h) || memcmp(h,
                                                               "\x7f"
                                                               "ELF",
                                                               4) != 0) {
    return elf;
  }
  const bool wide = h[4] == 2;
  const bool big = h[5] == 2;
  auto u16 = [big](const unsigned char* p) { return big ? kl::loadBe16(p) : kl::loadLe16(p); };
  auto u32 = [big](const unsigned char* p) { return big ? kl::loadBe32(p) : kl::loadLe32(p); };
  auto u64 = [big](const unsigned char* p) -> uint64_t {
    return big ? (uint64_t{kl::loadBe32(p)} << 32) | kl::loadBe32(p + 4) : kl::loadLe64(p);
  };
  elf.powerPc = u16(h + 18) == kMachinePowerPc;
  const uint64_t phoff = wide ? u64(h + 32) : u32(h + 28);
  const unsigned entSize = u16(h + (wide ? 54 : 42));
  const unsigned count = u16(h + (wide ? 56 : 44));
  if (entSize < (wide ? 56u : 32u) || entSize > 256) return elf;
  std::vector<unsigned char> p(entSize);
  for (unsigned i = 0; i < count; ++i) {
    in.seekg(static_cast<std::streamoff>(phoff + uint64_t{i} * entSize));
    if (!in.read(reinterpret_cast<char*>(p.data()), entSize)) return elf;
    if (u32(p.data()) != 1) continue;  // PT_LOAD
    ElfFile::Segment s;
    s.offset = wide ? u64(&p[8]) : u32(&p[4]);
    s.vaddr = wide ? u64(&p[16]) : u32(&p[8]);
    s.size = wide ? u64(&p[32]) : u32(&p[16]);
    elf.loads.push_back(s);
  }
  elf.ok = !elf.loads.empty();
  return elf;
}

// A word for a shell command line, quoted.
std::string quoted(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// The standard output of a command (its errors discarded); false when it cannot run.
bool runCommand(const std::string& command, std::string* out) {
  FILE* p = popen((command + " 2>/dev/null").c_str(), "r");
  if (p == nullptr) return false;
  char buf[4096];
  size_t n;
  out->clear();
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out->append(buf, n);
  const int status = pclose(p);
  return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// How one address of a file reads: its frames, innermost first ("function at file:line").
using Frames = std::vector<std::string>;

// addr2line -a -f -C -i over the file's addresses: each address's block starts with the
// address, then a function line and a file:line line per (inlined) frame.
std::map<uint64_t, Frames> addr2line(const std::string& tool, const std::string& file,
                                     const std::vector<uint64_t>& addresses) {
  std::string command = tool + " -a -f -C -i -e " + quoted(file);
  for (uint64_t a : addresses) {
    char text[24];
    snprintf(text, sizeof text, " 0x%" PRIx64, a);
    command += text;
  }
  std::map<uint64_t, Frames> frames;
  std::string out;
  if (!runCommand(command, &out)) return frames;
  std::istringstream lines(out);
  std::string line, function;
  uint64_t current = 0;
  bool haveFunction = false;
  while (std::getline(lines, line)) {
    uint64_t value;
    if (!haveFunction && startsWith(line, "0x") && parseHex(line.substr(2), &value)) {
      current = value;
      frames[current];
      continue;
    }
    if (!haveFunction) {
      function = line;
      haveFunction = true;
      continue;
    }
    haveFunction = false;
    if (function == "??" && startsWith(line, "??")) continue;
    frames[current].push_back(startsWith(line, "??") ? function : function + " at " + line);
  }
  return frames;
}

// The nearest symbol at or below each address, from nm (defined symbols in address
// order; the dynamic table when the file has no other), as "name+0xoff".
std::map<uint64_t, std::string> nearestSymbols(const std::string& nm, const std::string& file,
                                               const std::vector<uint64_t>& addresses) {
  std::map<uint64_t, std::string> symbols, named;
  for (const char* table : {"", "-D "}) {
    std::string out;
    if (!runCommand(nm + " -C -n --defined-only " + table + quoted(file), &out)) continue;
    std::istringstream lines(out);
    std::string line;
    while (std::getline(lines, line)) {
      std::istringstream words(line);
      std::string addr, type;
      uint64_t value;
      if (!(words >> addr >> type) || !parseHex(addr, &value)) continue;
      if (type != "t" && type != "T" && type != "W" && type != "w" && type != "i") continue;
      std::string name;
      std::getline(words >> std::ws, name);
      symbols[value] = name;
    }
    if (!symbols.empty()) break;
  }
  for (uint64_t a : addresses) {
    auto it = symbols.upper_bound(a);
    if (it == symbols.begin()) continue;
    --it;
    char off[24];
    snprintf(off, sizeof off, "+0x%" PRIx64, a - it->first);
    named[a] = it->second + off;
  }
  return named;
}

std::string baseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// One backtrace entry: the address, and where it leads.
struct Entry {
  uint64_t address = 0;
  uint64_t lookup = 0;  // the file's address looked up (a return address less one)
  std::string file;     // empty when no mapping or file was found
  uint64_t fileOffset = 0;
  Frames frames;
};

void symbolize(const CrashReport& report, std::vector<Entry>* entries) {
  std::map<std::string, std::vector<Entry*>> byFile;
  for (size_t i = 0; i < report.backtrace.size(); ++i) {
    Entry& e = (*entries)[i];
    for (const CrashMapping& m : report.mappings) {
      if (e.address < m.start || e.address >= m.end) continue;
      e.fileOffset = e.address - m.start + m.offset;
      e.file = mappedFile(m, report.executable);
      if (e.file.empty()) e.file = "?" + m.path;  // named by its listed path only
      break;
    }
    if (!e.file.empty() && e.file[0] != '?') byFile[e.file].push_back(&e);
  }
  for (auto& f : byFile) {
    const ElfFile elf = readElf(f.first);
    if (!elf.ok) continue;
    const std::string prefix = elf.powerPc ? "powerpc-linux-gnu-" : "";
    std::vector<uint64_t> lookups;
    for (Entry* e : f.second) {
      uint64_t vaddr;
      if (!elf.address(e->fileOffset, &vaddr)) continue;
      // Every address but the first is a return address: the call is the byte before.
      e->lookup = e == &(*entries)[0] || vaddr == 0 ? vaddr : vaddr - 1;
      lookups.push_back(e->lookup);
    }
    const std::map<uint64_t, Frames> frames = addr2line(prefix + "addr2line", f.first, lookups);
    std::vector<uint64_t> unnamed;
    for (Entry* e : f.second) {
      auto it = frames.find(e->lookup);
      if (it != frames.end() && !it->second.empty()) {
        e->frames = it->second;
      } else if (e->lookup != 0) {
        unnamed.push_back(e->lookup);
      }
    }
    if (unnamed.empty()) continue;
    const std::map<uint64_t, std::string> symbols = nearestSymbols(prefix + "nm", f.first, unnamed);
    for (Entry* e : f.second) {
      auto it = symbols.find(e->lookup);
      if (e->frames.empty() && it != symbols.end()) e->frames.push_back(it->second);
    }
  }
}

void printEntries(const std::vector<Entry>& entries, bool wide) {
  std::cout << "backtrace:\n";
  for (size_t i = 0; i < entries.size(); ++i) {
    const Entry& e = entries[i];
    char head[48];
    snprintf(head, sizeof head, "  #%-2zu 0x%0*" PRIx64 "  ", i, wide ? 16 : 8, e.address);
    std::cout << head;
    char where[48];
    snprintf(where, sizeof where, "+0x%" PRIx64, e.fileOffset);
    const std::string place =
        e.file.empty() ? ""
                       : "(" + baseName(e.file[0] == '?' ? e.file.substr(1) : e.file) + where + ")";
    if (e.frames.empty()) {
      std::cout << (place.empty() ? "?" : place) << "\n";
      continue;
    }
    std::cout << e.frames[0] << "  " << place << "\n";
    for (size_t k = 1; k < e.frames.size(); ++k) {
      std::cout << "      inlined into " << e.frames[k] << "\n";
    }
  }
}

bool readAll(const std::string& path, std::string* text) {
  std::ostringstream all;
  if (path == "-") {
    all << std::cin.rdbuf();
  } else {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    all << in.rdbuf();
  }
  *text = all.str();
  return true;
}

}  // namespace

bool parseCrashReport(const std::string& text, CrashReport* report, std::string* error) {
  *report = CrashReport();
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) report->lines.push_back(line);
  bool signal = false, backtrace = false, maps = false;
  for (size_t i = 0; i < report->lines.size(); ++i) {
    const std::string& line = report->lines[i];
    if (startsWith(line, "--- signal=")) {
      signal = true;
      if (i > 0) report->executable = report->lines[i - 1];
    } else if (signal && !backtrace && startsWith(line, "backtrace:")) {
      backtrace = true;
      report->backtraceLine = i;
      std::istringstream words(line.substr(strlen("backtrace:")));
      for (std::string word; words >> word;) {
        uint64_t a;
        if (!startsWith(word, "0x") || !parseHex(word.substr(2), &a)) {
          *error = "bad address '" + word + "' in the backtrace";
          return false;
        }
        report->backtrace.push_back(a);
      }
    } else if (line == "maps:") {
      maps = true;
    } else if (maps && line.empty()) {
      maps = false;
    } else if (maps) {
      CrashMapping m;
      if (parseMapping(line, &m)) report->mappings.push_back(m);
    }
  }
  if (!signal || !backtrace) {
    *error = "not a crash report (no \"--- signal=\" and \"backtrace:\" lines)";
    return false;
  }
  return true;
}

int crashCommand(int argc, char** argv) {
  if (argc > 1) return usage("crash takes one FILE (or - for standard input)");
  const std::string path = argc == 1 ? argv[0] : "-";
  std::string text;
  if (!readAll(path, &text)) return fail(path + ": " + strerror(errno));
  CrashReport report;
  std::string error;
  if (!parseCrashReport(text, &report, &error)) {
    return fail((path == "-" ? std::string("standard input") : path) + ": " + error);
  }
  std::vector<Entry> entries;
  for (uint64_t a : report.backtrace) {
    Entry e;
    e.address = a;
    entries.push_back(e);
  }
  symbolize(report, &entries);
  bool wide = false;
  for (const CrashMapping& m : report.mappings) wide = wide || m.end > 0xFFFFFFFFull;
  for (size_t i = 0; i < report.lines.size(); ++i) {
    if (i == report.backtraceLine) {
      printEntries(entries, wide);
    } else {
      std::cout << report.lines[i] << "\n";
    }
  }
  if (!isRegularFile(report.executable)) {
    std::cerr << "kl-msg: " << report.executable
              << ": not found here; its addresses are left as they are\n";
  }
  return 0;
}

}  // namespace klmsg
