// One packet of each type for the tests of decoders, its bytes written out: every field has a value
// of its own, so that a mix-up shows.
//
// The packets are constants; any thread may read them.
#pragma once

#include "tests/support/golden.h"

namespace qv::tests::written {

// The common header and the send time 0x0102030405060708 of a packet.
inline Bytes common(unsigned char type, unsigned char leg_low, unsigned char leg_high) {
    return {
        0xFF,    0x00,     0xFF, 0x00,                          // magic
        type,                                                   // packet type
        0x01,                                                   // protocol version
        leg_low, leg_high,                                      // leg word
        0xEF,    0xCD,     0xAB, 0x89, 0x67, 0x45, 0x23, 0x01,  // call key
        0x00,    0x01,     0x02, 0x03, 0x04, 0x05, 0x06, 0x07,  // call UUID
        0x08,    0x09,     0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F,  //
        0x08,    0x07,     0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  // send time
    };
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline const Bytes START =
    common(0x81, 0x01, 0xC0) +
    Bytes{
        0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80,  // channel created time
        0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x40,  // configured wall time
        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,  // configured steady time, -1
        0x15, 0xCD, 0x5B, 0x07, 0x00, 0x00, 0x00, 0x00,  // rule id, 123456789
        0x0A, 0x00, 0x00, 0x07,                          // report node 10.0.0.7
        0x13, 0xC4,                                      // port 5060, network order
        0xCC, 0x48,                                      // features
        0x04, 0x00,                                      // length of the call reference
        0x61, 0x40, 0x62, 0x00,                          // "a@b" and its zero
    };

inline const Bytes DATA = common(0x83, 0x01, 0x80) + Bytes{
                                                         0xFE, 0xFF, 0xFF, 0xFF,  // sequence number
                                                         0xA0, 0x00, 0x00, 0x00,  // sample offset
                                                         0x02, 0x00,              // sample count
                                                         0x34, 0x12, 0xFF, 0x7F,  // audio
                                                     };

inline const Bytes CONTROL = common(0x84, 0x80, 0x00) + Bytes{0x0C, 0x04};

inline const Bytes TERMINATE = common(0x82, 0x00, 0x00);

}  // namespace qv::tests::written
