#include "tools/capture.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "kl/base/endian.h"

namespace klmsg {

namespace {

constexpr uint32_t kMagic = 0xa1b2c3d4;
constexpr size_t kFileHeader = 24;
constexpr size_t kRecordHeader = 16;
// The most a record may hold: a whole body a monitor copy carries, and the header.
constexpr uint32_t kSnapLength = 65535 + kCaptureRecordHeader;

}  // namespace

CaptureWriter::~CaptureWriter() {
  if (file_ != nullptr) fclose(file_);
}

bool CaptureWriter::open(const std::string& path, std::string* error) {
  file_ = fopen(path.c_str(), "wb");
  if (file_ == nullptr) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  unsigned char h[kFileHeader];
  kl::storeLe32(h, kMagic);
  kl::storeLe16(h + 4, 2);  // version 2.4
  kl::storeLe16(h + 6, 4);
  kl::storeLe32(h + 8, 0);   // time zone offset
  kl::storeLe32(h + 12, 0);  // timestamp accuracy
  kl::storeLe32(h + 16, kSnapLength);
  kl::storeLe32(h + 20, kCaptureLinkType);
  if (fwrite(h, 1, sizeof h, file_) != sizeof h || fflush(file_) != 0) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  return true;
}

bool CaptureWriter::write(const CapturedFrame& frame) {
  if (file_ == nullptr) return false;
  const uint32_t captured = static_cast<uint32_t>(kCaptureRecordHeader + frame.body.size());
  unsigned char h[kRecordHeader + kCaptureRecordHeader];
  kl::storeLe32(h, frame.seconds);
  kl::storeLe32(h + 4, frame.micros);
  kl::storeLe32(h + 8, captured);
  kl::storeLe32(h + 12, static_cast<uint32_t>(kCaptureRecordHeader + frame.length));
  kl::storeLe32(h + 16, frame.from);
  kl::storeLe32(h + 20, frame.to);
  kl::storeLe32(h + 24, frame.length);
  return fwrite(h, 1, sizeof h, file_) == sizeof h &&
         fwrite(frame.body.data(), 1, frame.body.size(), file_) == frame.body.size() &&
         fflush(file_) == 0;
}

bool readCapture(const std::string& path, std::vector<CapturedFrame>* frames, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = path + ": " + strerror(errno);
    return false;
  }
  const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)),
                                         std::istreambuf_iterator<char>());
  if (bytes.size() < kFileHeader || kl::loadLe32(bytes.data()) != kMagic) {
    *error = "not a capture: " + path + " is no pcap file of this tool's form";
    return false;
  }
  if (kl::loadLe32(bytes.data() + 20) != kCaptureLinkType) {
    *error = "not a capture of kl traffic: " + path + " has link type " +
             std::to_string(kl::loadLe32(bytes.data() + 20));
    return false;
  }
  frames->clear();
  for (size_t at = kFileHeader; at < bytes.size();) {
    if (bytes.size() - at < kRecordHeader) {
      *error = "not a capture: " + path + " ends inside a record header";
      return false;
    }
    const unsigned char* h = bytes.data() + at;
    const uint32_t captured = kl::loadLe32(h + 8);
    if (captured < kCaptureRecordHeader || captured > bytes.size() - at - kRecordHeader) {
      *error = "not a capture: " + path + " has a record cut short";
      return false;
    }
    const unsigned char* data = h + kRecordHeader;
    CapturedFrame f;
    f.seconds = kl::loadLe32(h);
    f.micros = kl::loadLe32(h + 4);
    f.from = kl::loadLe32(data);
    f.to = kl::loadLe32(data + 4);
    f.length = kl::loadLe32(data + 8);
    f.body.assign(data + kCaptureRecordHeader, data + captured);
    frames->push_back(std::move(f));
    at += kRecordHeader + captured;
  }
  return true;
}

}  // namespace klmsg
