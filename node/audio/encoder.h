// Converts complete WAV files to FLAC or Opus, with libsndfile. Plain functions without state; any
// thread may call them.
#pragma once

#include <cstdint>
#include <string>

namespace qv::node {

enum class AudioFormat : std::uint8_t { WAV, FLAC, OPUS };

constexpr const char* name_of(AudioFormat format) {
    switch (format) {
        case AudioFormat::WAV:
            return "WAV";
        case AudioFormat::FLAC:
            return "FLAC";
        case AudioFormat::OPUS:
            return "Opus";
    }
    return "unknown";
}

// The ending of file names, with its dot.
constexpr const char* ending_of(AudioFormat format) {
    switch (format) {
        case AudioFormat::WAV:
            return ".wav";
        case AudioFormat::FLAC:
            return ".flac";
        case AudioFormat::OPUS:
            return ".opus";
    }
    return "";
}

// The sample rate that a file of this format has for audio of that rate, in Hz. Opus knows a few
// rates only: it takes the next higher one, or the highest.
int rate_in(AudioFormat format, int sample_rate);

struct Encoded {
    std::string error;  // Empty if the WAV file has become the other one.
    std::string path;   // Of the file that is there now.
    int sample_rate = 0;
    std::uint64_t samples = 0;  // Of each channel.
};

// Replaces the WAV file by one of that format, whose name differs in its ending. The new file
// appears when it has been written to the disk and read back; only then does the WAV file go.
// Whatever fails before leaves the WAV file as it was. With `replace`, an existing file of the new
// name is replaced.
Encoded encode(const std::string& wav_path, AudioFormat format, bool replace);

}  // namespace qv::node
