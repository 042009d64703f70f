// File: tools/capture.h
//
// Captures of kl-loader's traffic as standard pcap files (the classic format: a 24-byte file
// header, then a 16-byte header per record, all in little-endian order), so that a
// packet-analysis tool reads them with tools/wireshark/kl.lua. The link type is 147
// (LINKTYPE_USER0). Each record's data is a 12-byte header, then the frame's body exactly
// as kl-loader delivered it (SYS_TO already short of the receiving process, the sender in
// front of SYS_FROM):
//   bytes 0-3   the sending process id (1: the loader), little-endian
//   bytes 4-7   the receiving process id, little-endian
//   bytes 8-11  the body's whole length, little-endian (more than the record holds when the
//               loader sent a monitor only the body's beginning)
#ifndef TOOLS_CAPTURE_H_
#define TOOLS_CAPTURE_H_

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace klmsg {

constexpr uint32_t kCaptureLinkType = 147;
constexpr size_t kCaptureRecordHeader = 12;

// One captured frame.
struct CapturedFrame {
  uint32_t seconds = 0, micros = 0;
  uint32_t from = 0, to = 0;
  uint32_t length = 0;              // the body's whole length
  std::vector<unsigned char> body;  // what was captured of it
};

// Writes a capture file. Every write is flushed, so that a capture that is interrupted
// still holds every frame written before.
class CaptureWriter {
 public:
  CaptureWriter() = default;
  ~CaptureWriter();
  CaptureWriter(const CaptureWriter&) = delete;
  CaptureWriter& operator=(const CaptureWriter&) = delete;

  // Creates `path` and writes the file header; false with *error set when it cannot.
  bool open(const std::string& path, std::string* error);
  // Appends one frame; false when the write fails.
  bool write(const CapturedFrame& frame);

 private:
  FILE* file_ = nullptr;
};

// Reads every frame of the capture at `path`; false with *error set ("not a capture: ...")
// when the file is not a little-endian pcap file of link type 147, or a record is cut
// short.
bool readCapture(const std::string& path, std::vector<CapturedFrame>* frames, std::string* error);

}  // namespace klmsg

#endif  // TOOLS_CAPTURE_H_
