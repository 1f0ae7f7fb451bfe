// Runs an XDR codec (RFC 4506, libtirpc) over one record: decode, encode, free.
//
// A codec takes the stream and the address of a record pointer and returns 1 or 0. Decoding starts
// from a null pointer, which the codec replaces by storage of its own: fresh from malloc, or
// static. In the free direction a codec releases what it took from malloc and leaves static storage
// alone, so every record can be handed to _NQ_freeit_xdr.
#pragma once

#include <rpc/types.h>
// rpc/xdr.h needs the types before it.
#include <rpc/xdr.h>

#include <cstddef>
#include <cstdint>

// How many records have been decoded that had further bytes after their end. Those are not in the
// record, and would be lost if it were written back.
extern uint32_t recordsWithRest;

template <typename Record>
using XdrCodec = bool_t (*)(XDR *, Record **);

template <typename Record>
void _NQ_freeit_xdr(Record *record, XdrCodec<Record> codec) {
  XDR stream{};
  stream.x_op = XDR_FREE;
  codec(&stream, &record);
}

// The record, or null when the codec fails; what a failing codec had already taken is released.
template <typename Record>
Record *_NQ_decodeit_xdr(const char *bytes, size_t length, XdrCodec<Record> codec) {
  XDR stream;
  xdrmem_create(&stream, const_cast<char *>(bytes), static_cast<u_int>(length), XDR_DECODE);
  Record *record = nullptr;
  if (codec(&stream, &record)) {
    if (xdr_getpos(&stream) < length) ++recordsWithRest;
    return record;
  }
  if (record != nullptr) _NQ_freeit_xdr(record, codec);
  return nullptr;
}

// The buffer that all encodings share, grown to at least that many bytes. Its contents last until
// the next encoding. Null bytes when memory is exhausted.
struct XdrBuffer {
  char *bytes;
  size_t size;
};
XdrBuffer xdrBuffer(size_t atLeast);

// Points *bytes at the encoding, which belongs to the driver and lasts until the next encoding.
// 0 on success, -1 when the codec fails or memory is exhausted.
template <typename Record>
int _NQ_encodeit_xdr(const Record *record, const char **bytes, size_t *length,
                     XdrCodec<Record> codec) {
  for (size_t needed = 1;;) {
    const XdrBuffer buffer = xdrBuffer(needed);
    if (buffer.bytes == nullptr) return -1;
    XDR stream;
    auto *source = const_cast<Record *>(record);
    xdrmem_create(&stream, buffer.bytes, static_cast<u_int>(buffer.size), XDR_ENCODE);
    if (codec(&stream, &source)) {
      *bytes = buffer.bytes;
      *length = xdr_getpos(&stream);
      return 0;
    }
    // Too little room looks like any other failure. The size that the codec asks for tells them
    // apart; it is 0 for a record that cannot be encoded at all.
    needed = xdr_sizeof(reinterpret_cast<xdrproc_t>(codec), &source);
    if (needed <= buffer.size) return -1;
  }
}
