// Replaces Kaitai Struct's runtime library for C++, of which Debian 12 has no package: only the
// part of its interface that the parser of the packets uses, on a block of bytes instead of a
// stream. It is only for the test of the parser; other programs use the real library.
// parse_golden.cpp compiles with either.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#define KAITAI_STRUCT_VERSION 11000L

namespace kaitai {

class kstream {
  public:
    explicit kstream(const std::string& bytes) : bytes_(bytes) {}

    bool is_eof() const { return at_ == bytes_.size(); }

    std::string read_bytes(std::size_t count) {
        if (count > bytes_.size() - at_) {
            throw std::runtime_error("end of the packet");
        }
        at_ += count;
        return bytes_.substr(at_ - count, count);
    }

    std::uint8_t read_u1() { return static_cast<std::uint8_t>(little_endian(1)); }
    std::uint16_t read_u2le() { return static_cast<std::uint16_t>(little_endian(2)); }
    std::uint32_t read_u4le() { return static_cast<std::uint32_t>(little_endian(4)); }
    std::uint64_t read_u8le() { return little_endian(8); }
    std::int16_t read_s2le() { return static_cast<std::int16_t>(little_endian(2)); }
    std::int64_t read_s8le() { return static_cast<std::int64_t>(little_endian(8)); }
    std::uint16_t read_u2be() { return static_cast<std::uint16_t>(big_endian(2)); }
    std::uint32_t read_u4be() { return static_cast<std::uint32_t>(big_endian(4)); }

  private:
    std::uint64_t little_endian(std::size_t size) {
        const std::string bytes = read_bytes(size);
        std::uint64_t value = 0;
        for (std::size_t i = size; i-- > 0;) {
            value = value << 8 | static_cast<unsigned char>(bytes[i]);
        }
        return value;
    }

    std::uint64_t big_endian(std::size_t size) {
        std::uint64_t value = 0;
        for (const char byte : read_bytes(size)) {
            value = value << 8 | static_cast<unsigned char>(byte);
        }
        return value;
    }

    const std::string bytes_;
    std::size_t at_ = 0;
};

class kstruct {
  public:
    explicit kstruct(kstream* io) : m__io(io) {}
    kstruct(const kstruct&) = delete;
    kstruct& operator=(const kstruct&) = delete;
    virtual ~kstruct() = default;

    kstream* _io() { return m__io; }

  protected:
    kstream* m__io;
};

}  // namespace kaitai
