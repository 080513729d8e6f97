#include "node/audio/encoder.h"

#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <system_error>
#include <vector>

#include "node/audio/descriptor.h"
#include "node/audio/digest.h"
#include "node/audio/new_file.h"
#include "node/audio/rate_converter.h"
#include "tools/sound_file.h"

namespace qv::node {

namespace {

using tools::SoundFile;

constexpr std::array<int, 5> OPUS_RATES = {8000, 12000, 16000, 24000, 48000};

// Frames that are handled at once: a frame has a sample of each channel.
constexpr std::size_t PART_FRAMES = 8192;

int sndfile_format(AudioFormat format) {
    return format == AudioFormat::OPUS ? SF_FORMAT_OGG | SF_FORMAT_OPUS
                                       : SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
}

// Reads frames until there are none. `use` returns whether to go on.
template <typename Use>
void for_each_part(SNDFILE* file, int channels, Use use) {
    std::vector<std::int16_t> part(PART_FRAMES * static_cast<std::size_t>(channels));
    for (;;) {
        const sf_count_t frames = sf_readf_short(file, part.data(), PART_FRAMES);
        if (frames <= 0 || !use(part.data(), static_cast<std::size_t>(frames))) {
            return;
        }
    }
}

// Converts the rate of interleaved channels. Frames come out when all channels have them.
class ChannelConverter {
  public:
    ChannelConverter(int channels, int from, int to) {
        for (int i = 0; i < channels; ++i) {
            channels_.push_back({std::make_unique<RateConverter>(from, to), {}, {}});
        }
    }

    const std::vector<std::int16_t>& convert(const std::int16_t* samples, std::size_t frames) {
        for (std::size_t i = 0; i < channels_.size(); ++i) {
            Channel& channel = channels_[i];
            channel.in.resize(frames);
            for (std::size_t frame = 0; frame < frames; ++frame) {
                channel.in[frame] = samples[frame * channels_.size() + i];
            }
            channel.converter->convert(channel.in.data(), frames, channel.out);
        }
        return take();
    }

    const std::vector<std::int16_t>& finish() {
        for (Channel& channel : channels_) {
            channel.converter->flush(channel.out);
        }
        return take();
    }

  private:
    struct Channel {
        std::unique_ptr<RateConverter> converter;
        std::vector<std::int16_t> in;
        std::vector<std::int16_t> out;
    };

    // All channels have the same number of samples, because they get the same number.
    const std::vector<std::int16_t>& take() {
        const std::size_t frames = channels_[0].out.size();
        frames_.resize(frames * channels_.size());
        for (std::size_t i = 0; i < channels_.size(); ++i) {
            for (std::size_t frame = 0; frame < frames; ++frame) {
                frames_[frame * channels_.size() + i] = channels_[i].out[frame];
            }
            channels_[i].out.clear();
        }
        return frames_;
    }

    std::vector<Channel> channels_;
    std::vector<std::int16_t> frames_;
};

// One conversion.
class Encoder {
  public:
    Encoder(std::string wav_path, const EncodeOptions& options)
        : wav_path_(std::move(wav_path)),
          options_(options),
          target_(folder_of(wav_path_), new_name(wav_path_, options.format)) {}

    Encoded run() {
        Encoded encoded;
        encoded.path = wav_path_;
        // When the new file has its name, nothing needs memory.
        const bool published = make(encoded) && (go_on() || fail("it was given up")) &&
                               target_.publish(options_.replace);
        if (!published) {
            encoded.error = error_.empty() ? target_.error() : error_;
            return encoded;
        }
        encoded.path.swap(target_.path());
        encoded.sample_rate = info_.samplerate;
        encoded.samples = static_cast<std::uint64_t>(info_.frames);
        if (target_.force_name() == 0 && go_on()) {
            remove_source();
        }
        return encoded;
    }

  private:
    static std::string folder_of(const std::string& path) {
        return path.substr(0, path.rfind('/'));
    }
    static std::string new_name(const std::string& wav_path, AudioFormat format) {
        const std::string name = wav_path.substr(wav_path.rfind('/') + 1);
        return name.substr(0, std::min(name.rfind('.'), name.size())) + ending_of(format);
    }

    bool fail(const std::string& error) {
        error_ = error;
        return false;
    }

    // Makes the whole new file.
    bool make(Encoded& encoded) {
        if (!target_.error().empty() || !open_source() || !write() || !target_.force() ||
            !check()) {
            return false;
        }
        if (options_.digest) {
            encoded.sha256 = sha256_of_file(target_.descriptor(), error_);
        }
        return error_.empty();
    }

    bool go_on() const { return options_.go_on == nullptr || options_.go_on(); }

    bool open_source() {
        const Descriptor file = open_regular_file(wav_path_, O_RDONLY);
        struct stat status {};
        if (file.is_open() && ::fstat(file.number(), &status) == 0) {
            source_ = open_copy(file.number(), SFM_READ, source_info_);
        }
        source_inode_ = status.st_ino;
        return source_ != nullptr || fail("the WAV file cannot be read");
    }

    // libsndfile closes the copy of the descriptor.
    SoundFile open_copy(int descriptor, int mode, SF_INFO& info) {
        return tools::open_sound_file(
            [&] { return sf_open_fd(::dup(descriptor), mode, &info, SF_TRUE); }, error_);
    }

    bool write() {
        SF_INFO info{};
        info.samplerate = rate_in(options_.format, source_info_.samplerate);
        info.channels = source_info_.channels;
        info.format = sndfile_format(options_.format);
        SoundFile file = open_copy(target_.descriptor(), SFM_WRITE, info);
        if (file == nullptr) {
            return false;
        }
        sf_set_string(file.get(), SF_STR_SOFTWARE, "quorvane-node");
        const bool written = copy(file.get(), info);
        return sf_close(file.release()) == 0 && written ? true : fail(write_error());
    }

    bool copy(SNDFILE* file, const SF_INFO& info) {
        const auto put = [&](const std::int16_t* samples, std::size_t frames) {
            const auto count = static_cast<sf_count_t>(frames);
            expected_frames_ += count;
            return sf_writef_short(file, samples, count) == count;
        };
        const auto channels = static_cast<std::size_t>(info.channels);
        bool written = true;
        if (info.samplerate == source_info_.samplerate) {
            for_each_part(source_.get(), info.channels,
                          [&](const std::int16_t* samples, std::size_t frames) {
                              written = put(samples, frames);
                              return written;
                          });
            return written;
        }
        ChannelConverter converter(info.channels, source_info_.samplerate, info.samplerate);
        for_each_part(source_.get(), info.channels,
                      [&](const std::int16_t* samples, std::size_t frames) {
                          const auto& converted = converter.convert(samples, frames);
                          written = put(converted.data(), converted.size() / channels);
                          return written;
                      });
        const auto& rest = converter.finish();
        return written && put(rest.data(), rest.size() / channels);
    }

    // libsndfile does not say why it could not write.
    static std::string write_error() {
        return errno == ENOSPC || errno == EDQUOT || errno == EIO || errno == EFBIG
                   ? std::generic_category().message(errno)
                   : "the new file could not be written";
    }

    // Reads the new file back. FLAC has to have every sample, Opus the right number of them.
    bool check() {
        ::lseek(target_.descriptor(), 0, SEEK_SET);
        info_ = {};
        const SoundFile file = open_copy(target_.descriptor(), SFM_READ, info_);
        if (file == nullptr || info_.frames != expected_frames_ ||
            (options_.format == AudioFormat::FLAC && !has_the_samples(file.get()))) {
            return fail("the new file does not have the audio");
        }
        return true;
    }

    bool has_the_samples(SNDFILE* file) {
        sf_seek(source_.get(), 0, SEEK_SET);
        const auto channels = static_cast<std::size_t>(info_.channels);
        std::vector<std::int16_t> expected(PART_FRAMES * channels);
        sf_count_t checked = 0;
        for_each_part(file, info_.channels, [&](const std::int16_t* samples, std::size_t frames) {
            const auto count = static_cast<sf_count_t>(frames);
            const bool same = sf_readf_short(source_.get(), expected.data(), count) == count &&
                              std::equal(samples, samples + frames * channels, expected.begin());
            checked += same ? count : 0;
            return same;
        });
        return checked == expected_frames_ && expected_frames_ == source_info_.frames;
    }

    // Unless another file has its name meanwhile.
    void remove_source() {
        struct stat status {};
        if (::stat(wav_path_.c_str(), &status) == 0 && status.st_ino == source_inode_) {
            ::unlink(wav_path_.c_str());
        }
    }

    const std::string wav_path_;
    const EncodeOptions& options_;
    NewFile target_;
    SoundFile source_;
    SF_INFO source_info_{};
    ino_t source_inode_ = 0;
    sf_count_t expected_frames_ = 0;
    SF_INFO info_{};  // Of the new file.
    std::string error_;
};

}  // namespace

int rate_in(AudioFormat format, int sample_rate) {
    if (format != AudioFormat::OPUS) {
        return sample_rate;
    }
    const auto* const rate = std::lower_bound(OPUS_RATES.begin(), OPUS_RATES.end(), sample_rate);
    return rate != OPUS_RATES.end() ? *rate : OPUS_RATES.back();
}

Encoded encode(const std::string& wav_path, const EncodeOptions& options) {
    return Encoder(wav_path, options).run();
}

}  // namespace qv::node
