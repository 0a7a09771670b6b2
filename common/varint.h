// Big-endian integers and the variable-length integer that heads every frame. All functions are reentrant.
//
// The two top bits of a variable-length integer's first byte give its length (1, 2, 4 or 8 bytes); the other bits are
// the value, most significant byte first.
#ifndef TANDEM_COMMON_VARINT_H
#define TANDEM_COMMON_VARINT_H

#include <cstdint>

#include "common/export.h"

// Each writes 2, 3, 4 or 8 bytes at `out`, without a bounds check. t_format_24 writes bits 23..0.
TANDEM_API void t_format_16(uint8_t* out, uint16_t value);
TANDEM_API void t_format_24(uint8_t* out, uint32_t value);
TANDEM_API void t_format_32(uint8_t* out, uint32_t value);
TANDEM_API void t_format_64(uint8_t* out, uint64_t value);

// The length that t_varint_encode writes for `value`: the shortest that holds it, and 8 for whatever does not fit 62
// bits.
TANDEM_API int t_encode_varint_length(uint64_t value);
// The length of a field that begins with `first_byte`.
TANDEM_API int t_decode_varint_length(uint8_t first_byte);

// Returns the bytes written, or 0 (and writes nothing) when `out_len` is too small. Bits 63 and 62 of the value are
// dropped.
TANDEM_API int t_varint_encode(uint8_t* out, uint32_t out_len, uint64_t value);
// Always the 2-byte form, for a field that is filled in later; bits 15 and 14 are dropped.
TANDEM_API void t_varint_encode_16(uint8_t* out, uint16_t value);

// Returns the bytes consumed, or 0 (and a zero value) when `in_len` is shorter than the field. `in[0]` must be
// readable.
TANDEM_API int t_varint_decode(const uint8_t* in, uint32_t in_len, uint64_t* value);
// The length of the field that starts at `in`.
TANDEM_API int t_varint_skip(const uint8_t* in);

#endif  // TANDEM_COMMON_VARINT_H
