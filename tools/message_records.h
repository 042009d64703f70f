// File: tools/message_records.h
//
// The records of a flattened message (kl/message/wire_format.h), in the order they are
// written, each as its id word and its byte span. A text form uses them to show a message's
// fields in wire order, and to tell whether a nested message's bytes are exactly the
// encoding of its fields in that order (then the fields stand for the bytes).
#ifndef TOOLS_MESSAGE_RECORDS_H_
#define TOOLS_MESSAGE_RECORDS_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace klmsg {

// One record of a current-format encoding.
struct Record {
  uint32_t word;  // the id word as written: the stored id, with bit 24 the wire's flag
  size_t begin;   // offset of the id word in the encoding
  size_t end;     // offset just past the record's value
};

// Splits a current-format encoding ("M2" first) into its records. False when `data` is not
// one: another start (the older format, or too short for the magic), a record cut short, or
// a type code without a meaning; *records then holds the whole records before the fault.
// Reads only [data, data + size).
bool splitRecords(const unsigned char* data, size_t size, std::vector<Record>* records);

}  // namespace klmsg

#endif  // TOOLS_MESSAGE_RECORDS_H_
