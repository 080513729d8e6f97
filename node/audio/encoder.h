// Converts complete WAV files to FLAC or Opus, with libsndfile. Plain functions without state; any
// thread may call them.
#pragma once

#include <cstdint>
#include <functional>
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

struct EncodeOptions {
    AudioFormat format = AudioFormat::FLAC;
    bool replace = false;  // An existing file of the new name. Otherwise a number is added to it.
    bool digest = false;   // Compute that of the new file.
    // Called before the new file gets its name, and before the WAV file is removed: unless it
    // returns true, the WAV file stays. Null stands for true. Must not throw.
    std::function<bool()> go_on = nullptr;
};

struct Encoded {
    std::string error;  // Empty if the WAV file has become the other one.
    std::string path;   // Of the file that is there now.
    // Of the new file:
    int sample_rate = 0;
    std::uint64_t samples = 0;  // Of each channel.
    std::string sha256;         // If requested.
};

// Replaces the WAV file by one of another format, whose name differs in its ending. The new file
// appears when it has been written to the disk and read back. The WAV file goes when the new name
// has been written to the disk, too. Whatever fails before leaves the WAV file as it was. Throws
// std::bad_alloc, but not when the new file has appeared.
Encoded encode(const std::string& wav_path, const EncodeOptions& options);

}  // namespace qv::node
