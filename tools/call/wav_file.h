// Reads the audio of one side of a call from a WAV file.
//
// No state; any thread may call it.
#pragma once

#include <cstdint>
#include <string>

#include "host/frame_source.h"
#include "tools/call/file_error.h"
#include "tools/sample_time.h"

namespace qv::tools::call {

constexpr std::uint32_t MIN_SAMPLE_RATE = 8000;
constexpr std::uint32_t MAX_SAMPLE_RATE = 48000;

struct Audio {
    std::string name;        // file name without its folders
    std::uint32_t rate = 0;  // samples a second
    host::Samples samples;   // at least one

    double seconds() const { return seconds_of_samples(samples->size(), rate); }
};

// Reads a mono PCM WAV of 8 to 48 kHz and converts its samples to 16 bits. Throws FileError.
Audio load_wav(const std::string& path);

// A sine tone, for a side without a file.
Audio make_tone(std::uint32_t rate, double hertz, double seconds);

}  // namespace qv::tools::call
