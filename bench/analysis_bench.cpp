// Measures the analysis of the media node on recordings; bench/analysis.sh downloads them
// and calls this program.
//
//   analysis_bench samples NAME REFERENCES OTHERS...  how many references are found
//   analysis_bench tones OTHERS...                    how many tones are found
//   analysis_bench false HOURS REFERENCES OTHERS...   what is found by mistake
//   analysis_bench activity NAME SPEECH               activity detectors, compared
//   analysis_bench many OTHERS REFERENCES...          what is found among 5,000 references
//   analysis_bench cost OTHERS REFERENCES...          processor time and memory
//
// Folders hold WAV files of 8 kHz, at any depth.
#include <malloc.h>
#include <sndfile.h>
#include <speex/speex_preprocess.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>
#include <webrtc/modules/interface/module_common_types.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "node/analysis/activity_detector.h"
#include "node/analysis/sample_detector.h"

namespace {

using namespace qv::node::analysis;
namespace fs = std::filesystem;
using Sound = std::vector<float>;

constexpr int RATE = 8000;
constexpr std::size_t PACKET = 160;
constexpr std::size_t TEN_MS = 80;
constexpr double CLEAN = 99;  // Decibels of signal to noise.

struct Recording {
    std::string name;
    Sound sound;
    double seconds() const { return static_cast<double>(sound.size()) / RATE; }
};

Sound read_sound(const fs::path& path) {
    SF_INFO info{};
    SNDFILE* const file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr || info.channels != 1 || info.samplerate != RATE) {
        throw std::runtime_error(path.string() + " is no recording of 8 kHz");
    }
    Sound sound(static_cast<std::size_t>(info.frames));
    sf_readf_float(file, sound.data(), info.frames);
    sf_close(file);
    return sound;
}

// Returns the recordings in the order of their names. Leaves out effects, tones and silence, which
// are the same in every language.
std::vector<Recording> read_recordings(const fs::path& folder) {
    static const std::set<std::string> everywhere{"tt-monkeys", "tt-allbusy", "tt-somethingwrong",
                                                  "tt-monkeysintro", "tt-weasels"};
    std::vector<Recording> list;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file() && !entry.is_symlink() && entry.path().extension() == ".wav" &&
            everywhere.count(entry.path().stem().string()) == 0) {
            list.push_back(
                {entry.path().lexically_relative(folder).string(), read_sound(entry.path())});
        }
    }
    std::sort(list.begin(), list.end(),
              [](const Recording& a, const Recording& b) { return a.name < b.name; });
    return list;
}

// Speech and music that repeat without end.
class Others {
  public:
    Others(char** begin, char** end) {
        for (; begin != end; ++begin) {
            std::vector<Recording> list = read_recordings(*begin);
            std::shuffle(list.begin(), list.end(), std::mt19937(7));
            for (const Recording& each : list) {
                all.insert(all.end(), each.sound.begin(), each.sound.end());
            }
        }
    }
    Sound next(std::size_t size) {
        Sound sound;
        for (; sound.size() < size; at_ = (at_ + 1) % all.size()) {
            sound.push_back(all[at_]);
        }
        return sound;
    }
    Sound all;

  private:
    std::size_t at_ = 0;
};

std::vector<double> powers(const Sound& sound) {
    std::vector<double> list;
    for (std::size_t at = 0; at + TEN_MS <= sound.size(); at += TEN_MS) {
        double sum = 0;
        for (std::size_t i = at; i < at + TEN_MS; ++i) {
            sum += static_cast<double>(sound[i]) * static_cast<double>(sound[i]);
        }
        list.push_back(sum / TEN_MS);
    }
    return list;
}

// Returns the mean power of the pieces that are less than 20 dB below the loudest one.
double loud_power(const Sound& sound) {
    const std::vector<double> list = powers(sound);
    const double loudest = list.empty() ? 0 : *std::max_element(list.begin(), list.end());
    double sum = 0;
    int count = 0;
    for (const double each : list) {
        if (each > loudest / 100) {
            sum += each;
            ++count;
        }
    }
    return count == 0 ? 0 : sum / count;
}

double gain_of(double decibels) {
    return std::pow(10, decibels / 20);
}

Sound louder(Sound sound, double gain) {
    for (float& each : sound) {
        each *= static_cast<float>(gain);
    }
    return sound;
}

void append(Sound& sound, const Sound& more) {
    sound.insert(sound.end(), more.begin(), more.end());
}

// Returns white noise this many decibels below `power`.
void add_noise(Sound& sound, double power, double snr_db, std::mt19937& random) {
    std::normal_distribution<float> noise(
        0, static_cast<float>(std::sqrt(power * std::pow(10, -snr_db / 10))));
    for (float& each : sound) {
        each += noise(random);
    }
}

// Returns a sample as a mu-law line transmits it.
std::int16_t mu_law(float value) {
    const int linear = static_cast<int>(std::lround(std::clamp(value, -1.0F, 1.0F) * 32767.0F));
    const int magnitude = std::min(std::abs(linear), 32635) + 132;
    int exponent = 7;
    for (int mask = 0x4000; (magnitude & mask) == 0 && exponent > 0; mask >>= 1) {
        --exponent;
    }
    const int mantissa = (magnitude >> (exponent + 3)) & 15;
    const int coded = (((mantissa << 3) + 132) << exponent) - 132;
    return static_cast<std::int16_t>(linear < 0 ? -coded : coded);
}

std::vector<std::int16_t> through_the_line(const Sound& sound) {
    std::vector<std::int16_t> samples;
    samples.reserve(sound.size());
    for (const float each : sound) {
        samples.push_back(mu_law(each));
    }
    return samples;
}

struct FoundList : SampleOutput {
    std::vector<SampleFound> list;
    void sample(const SampleFound& found) override { list.push_back(found); }
};

std::vector<SampleFound> found_in(const Sound& sound,
                                  const std::shared_ptr<const SampleIndex>& index) {
    const auto samples = through_the_line(sound);
    SampleDetector detector(index, RATE);
    FoundList found;
    for (std::size_t at = 0; at < samples.size(); at += PACKET) {
        detector.add(samples.data() + at, std::min(PACKET, samples.size() - at), found);
    }
    return found.list;
}

double percentile(std::vector<double> list, double part) {
    if (list.empty()) {
        return 0;
    }
    std::sort(list.begin(), list.end());
    return list[static_cast<std::size_t>(part * static_cast<double>(list.size() - 1))];
}

struct Condition {
    const char* name;
    double shortest_s, longest_s;  // Of the references that are played.
    double gain_db, snr_db;
    double from, to;  // The part that is played.
    double talk_db;   // Level of another voice at the same time. 0: equally loud.
};

class Tally {
  public:
    void count(std::size_t reference, const std::vector<SampleFound>& list, double truth,
               double begun) {
        ++played_;
        int times = 0;
        bool right = false;
        for (const SampleFound& each : list) {
            if (each.reference != reference) {
                ++others_;
                continue;
            }
            right = right || std::abs(static_cast<double>(each.position) - truth) <= 0.05 * RATE;
            if (++times == 1) {
                after_.push_back((static_cast<double>(each.heard) - begun) / RATE);
            }
        }
        found_ += times > 0 ? 1 : 0;
        right_ += right ? 1 : 0;
        twice_ += times > 1 ? 1 : 0;
    }
    void print(const char* name) const {
        const auto share = [this](int n) { return 100.0 * n / std::max(1, played_); };
        std::printf("  %-34s %4d %6.1f %% %6.1f %% %4d %4d   %.2f %.2f s\n", name, played_,
                    share(found_), share(right_), twice_, others_, percentile(after_, 0.5),
                    percentile(after_, 0.99));
        std::fflush(stdout);
    }

  private:
    int played_ = 0;
    int found_ = 0;
    int right_ = 0;
    int twice_ = 0;
    int others_ = 0;
    std::vector<double> after_;
};

void print_head(const char* title) {
    std::printf("%s\n  %-34s %4s %8s %8s %4s %4s   %s\n", title, "", "n", "found", "right", "2x",
                "oth.", "heard for: median, 99 %");
}

// One reference among others' speech, and what was found of it.
void play(const Condition& condition, std::size_t number, const Sound& reference,
          const std::shared_ptr<const SampleIndex>& index, Others& others, std::mt19937& random,
          Tally& tally) {
    const auto size = static_cast<double>(reference.size());
    Sound played(reference.begin() + static_cast<std::ptrdiff_t>(condition.from * size),
                 reference.begin() + static_cast<std::ptrdiff_t>(condition.to * size));
    played = louder(played, gain_of(condition.gain_db));
    const double power = loud_power(played);
    if (condition.talk_db > -90) {
        const Sound talk = others.next(played.size());
        const double gain =
            std::sqrt(power / std::max(1e-9, loud_power(talk))) * gain_of(condition.talk_db);
        for (std::size_t i = 0; i < played.size(); ++i) {
            played[i] += static_cast<float>(gain) * talk[i];
        }
    }
    constexpr double BESIDE = 0.3;
    Sound call = louder(others.next(20'000 + random() % 4000), BESIDE);
    const auto begun = static_cast<double>(call.size());
    append(call, played);
    append(call, louder(others.next(16'000), BESIDE));
    if (condition.snr_db < CLEAN) {
        add_noise(call, power, condition.snr_db, random);
    }
    tally.count(number, found_in(call, index), begun - condition.from * size, begun);
}

void measure_samples(const std::string& name, const fs::path& folder, Others others) {
    SampleIndexBuilder builder;
    std::vector<Recording> references;
    for (Recording& each : read_recordings(folder)) {
        if (builder.add(each.name, each.sound.data(), each.sound.size(), RATE).empty()) {
            references.push_back(std::move(each));
        }
    }
    const auto index = builder.build();
    const std::string title = "samples, " + name + ": " + std::to_string(index->size()) +
                              " references, " + std::to_string(index->bytes() / 1024) + " KiB";
    print_head(title.c_str());
    constexpr double ANY = 1e9;
    const Condition conditions[] = {
        {"1 s and more, -10 dB", 1, ANY, -10, CLEAN, 0, 1, -99},
        {"the same, noise 10 dB below", 1, ANY, -10, 10, 0, 1, -99},
        {"the same, first third cut off", 1, ANY, -10, CLEAN, 1.0 / 3, 1, -99},
        {"the same, last third cut off", 1, ANY, -10, CLEAN, 0, 2.0 / 3, -99},
        {"0.5 to 1 s, -10 dB", 0.5, 1, -10, CLEAN, 0, 1, -99},
        {"1 to 2 s, -20 dB", 1, 2, -20, CLEAN, 0, 1, -99},
        {"1 to 2 s, +6 dB", 1, 2, 6, CLEAN, 0, 1, -99},
        {"1 to 2 s, talk 6 dB below", 1, 2, -10, CLEAN, 0, 1, -6},
        {"1 to 2 s, talk as loud", 1, 2, -10, CLEAN, 0, 1, 0},
    };
    for (const Condition& condition : conditions) {
        std::mt19937 random(1);
        Tally tally;
        for (std::size_t i = 0; i < references.size(); ++i) {
            const double seconds = references[i].seconds();
            if (seconds >= condition.shortest_s && seconds < condition.longest_s) {
                play(condition, i, references[i].sound, index, others, random, tally);
            }
        }
        tally.print(condition.name);
    }
}

Sound tone(const std::vector<double>& frequencies, double seconds) {
    Sound sound(static_cast<std::size_t>(seconds * RATE));
    for (std::size_t i = 0; i < sound.size(); ++i) {
        for (const double each : frequencies) {
            sound[i] += static_cast<float>(
                0.3 * std::sin(2 * 3.14159265358979 * each * static_cast<double>(i) / RATE));
        }
    }
    return sound;
}

Sound in_turn(const std::vector<Sound>& parts) {
    Sound sound;
    for (const Sound& each : parts) {
        append(sound, each);
    }
    return sound;
}

std::vector<Recording> tones() {
    const Sound half_pause(RATE / 2);
    return {
        {"beep 1000 Hz 0.5 s", tone({1000}, 0.5)},
        {"beep 440 Hz 0.6 s", tone({440}, 0.6)},
        {"beep 1400 Hz 0.8 s", tone({1400}, 0.8)},
        {"fax call 1100 Hz", tone({1100}, 0.5)},
        {"fax answer 2100 Hz", tone({2100}, 3)},
        {"dial 425 Hz", tone({425}, 5)},
        {"dial 350 + 440 Hz", tone({350, 440}, 4)},
        {"ring back 425 Hz", tone({425}, 1)},
        {"ring back 440 + 480 Hz", tone({440, 480}, 2)},
        {"ring back 400 + 450 Hz",
         in_turn({tone({400, 450}, 0.4), Sound(1600), tone({400, 450}, 0.4)})},
        {"busy 425 Hz", in_turn({tone({425}, 0.48), half_pause, tone({425}, 0.48), half_pause})},
        {"busy 480 + 620 Hz",
         in_turn({tone({480, 620}, 0.5), half_pause, tone({480, 620}, 0.5), half_pause})},
        {"special information",
         in_turn({tone({950}, 0.33), tone({1400}, 0.33), tone({1800}, 0.33)})},
        {"special information, short last",
         in_turn({tone({985.2}, 0.38), tone({1370.6}, 0.274), tone({1776.7}, 0.38)})},
    };
}

void measure_tones(Others others) {
    SampleIndexBuilder builder;
    const std::vector<Recording> references = tones();
    for (const Recording& each : references) {
        builder.add(each.name, each.sound.data(), each.sound.size(), RATE);
    }
    const auto index = builder.build();
    print_head("tones");
    constexpr double ANY = 1e9;
    const Condition conditions[] = {
        {"-10 dB", 0, ANY, -10, CLEAN, 0, 1, -99},
        {"-20 dB", 0, ANY, -20, CLEAN, 0, 1, -99},
        {"+6 dB", 0, ANY, 6, CLEAN, 0, 1, -99},
        {"noise 10 dB below", 0, ANY, -10, 10, 0, 1, -99},
    };
    for (const Condition& condition : conditions) {
        std::mt19937 random(1);
        Tally tally;
        for (int round = 0; round < 10; ++round) {
            for (std::size_t i = 0; i < references.size(); ++i) {
                play(condition, i, references[i].sound, index, others, random, tally);
            }
        }
        tally.print(condition.name);
    }
}

Sound faster(const Sound& sound, double factor) {
    Sound result;
    for (double at = 0; at + 1 < static_cast<double>(sound.size()); at += factor) {
        const auto i = static_cast<std::size_t>(at);
        const auto between = static_cast<float>(at - static_cast<double>(i));
        result.push_back(sound[i] + between * (sound[i + 1] - sound[i]));
    }
    return result;
}

void measure_false(double hours, const fs::path& folder, Others others) {
    SampleIndexBuilder builder;
    for (const Recording& each : read_recordings(folder)) {
        builder.add(each.name, each.sound.data(), each.sound.size(), RATE);
    }
    for (const Recording& each : tones()) {
        builder.add(each.name, each.sound.data(), each.sound.size(), RATE);
    }
    const auto index = builder.build();
    // Plays the recording as it is, then faster and slower, which sounds like other voices and
    // other keys.
    const double speeds[] = {1, 0.93, 1.07, 0.97, 1.04, 0.89, 1.11, 0.95, 1.02};
    double heard_s = 0;
    std::size_t count = 0;
    for (std::size_t round = 0; heard_s < hours * 3600; ++round) {
        Sound sound = faster(others.all, speeds[round % std::size(speeds)]);
        sound.resize(
            std::min(sound.size(), static_cast<std::size_t>((hours * 3600 - heard_s) * RATE) + 1));
        for (const SampleFound& each : found_in(sound, index)) {
            std::printf("  %s at %.2f s of round %zu, score %.2f\n", each.name.c_str(),
                        static_cast<double>(each.position) / RATE, round, each.score);
            ++count;
        }
        heard_s += static_cast<double>(sound.size()) / RATE;
    }
    std::printf("false detections: %zu in %.1f hours, %zu references\n", count, heard_s / 3600,
                index->size());
}

using Truth = std::vector<bool>;  // One entry for every 10 ms.

// Sound is what is less than 25 dB below the loud parts of the recording, including pauses up to
// 200 ms. Sound shorter than 30 ms does not count.
Truth truth_of(const Sound& sound) {
    const std::vector<double> list = powers(sound);
    const double least = loud_power(sound) * std::pow(10, -2.5);
    Truth truth;
    for (const double each : list) {
        truth.push_back(each >= least);
    }
    const auto fill = [&truth](bool value, std::size_t shortest) {
        for (std::size_t at = 0; at < truth.size();) {
            std::size_t end = at;
            while (end < truth.size() && truth[end] == truth[at]) {
                ++end;
            }
            const bool is_inside = at > 0 && end < truth.size();
            if (truth[at] == value && end - at < shortest && (is_inside || value)) {
                std::fill(truth.begin() + static_cast<std::ptrdiff_t>(at),
                          truth.begin() + static_cast<std::ptrdiff_t>(end), !value);
            }
            at = end;
        }
    };
    fill(false, 20);
    fill(true, 3);
    return truth;
}

struct Changes : ActivityOutput {
    std::vector<ActivityChange> list;
    void activity(const ActivityChange& change) override { list.push_back(change); }
};

Truth by_own(const std::vector<std::int16_t>& samples) {
    ActivityDetector detector(RATE, {});
    Changes changes;
    detector.add(samples.data(), samples.size(), changes);
    detector.finish(changes);
    Truth result(samples.size() / TEN_MS);
    std::size_t begin = 0;
    for (const ActivityChange& each : changes.list) {
        const auto at = std::min<std::size_t>(result.size(), (each.position + 40) / TEN_MS);
        if (!each.active) {
            std::fill(result.begin() + static_cast<std::ptrdiff_t>(begin),
                      result.begin() + static_cast<std::ptrdiff_t>(at), true);
        }
        begin = at;
    }
    return result;
}

Truth by_webrtc(const std::vector<std::int16_t>& samples, int likelihood) {
    const std::unique_ptr<webrtc::AudioProcessing> processing(webrtc::AudioProcessing::Create());
    processing->voice_detection()->set_likelihood(
        static_cast<webrtc::VoiceDetection::Likelihood>(likelihood));
    processing->voice_detection()->Enable(true);
    Truth result;
    webrtc::AudioFrame frame;
    for (std::size_t at = 0; at + TEN_MS <= samples.size(); at += TEN_MS) {
        frame.UpdateFrame(0, 0, samples.data() + at, TEN_MS, RATE,
                          webrtc::AudioFrame::kNormalSpeech, webrtc::AudioFrame::kVadUnknown, 1);
        processing->ProcessStream(&frame);
        result.push_back(processing->voice_detection()->stream_has_voice());
    }
    return result;
}

Truth by_speex(std::vector<std::int16_t> samples, int start, int go_on) {
    SpeexPreprocessState* const state = speex_preprocess_state_init(TEN_MS, RATE);
    int on = 1;
    int off = 0;
    speex_preprocess_ctl(state, SPEEX_PREPROCESS_SET_VAD, &on);
    speex_preprocess_ctl(state, SPEEX_PREPROCESS_SET_DENOISE, &off);
    speex_preprocess_ctl(state, SPEEX_PREPROCESS_SET_PROB_START, &start);
    speex_preprocess_ctl(state, SPEEX_PREPROCESS_SET_PROB_CONTINUE, &go_on);
    Truth result;
    for (std::size_t at = 0; at + TEN_MS <= samples.size(); at += TEN_MS) {
        result.push_back(speex_preprocess_run(state, samples.data() + at) != 0);
    }
    speex_preprocess_state_destroy(state);
    return result;
}

double share_right(const Truth& result, const Truth& truth) {
    std::size_t right = 0;
    const std::size_t size = std::min(result.size(), truth.size());
    for (std::size_t i = 0; i < size; ++i) {
        right += result[i] == truth[i] ? 1 : 0;
    }
    return 100.0 * static_cast<double>(right) / static_cast<double>(size);
}

// A library decides on frames of its own, so up to 100 ms too early or too late counts as right. It
// has no hang-over, so the pauses that the truth fills are filled here, too.
double best_share(Truth result, const Truth& truth) {
    for (std::size_t at = 0; at < result.size();) {
        std::size_t end = at;
        while (end < result.size() && result[end] == result[at]) {
            ++end;
        }
        if (!result[at] && at > 0 && end - at < 20 && end < result.size()) {
            std::fill(result.begin() + static_cast<std::ptrdiff_t>(at),
                      result.begin() + static_cast<std::ptrdiff_t>(end), true);
        }
        at = end;
    }
    double best = 0;
    for (std::size_t late = 0; late <= 10; ++late) {
        best = std::max(best, share_right(Truth(result.begin() + static_cast<std::ptrdiff_t>(late),
                                                result.end()),
                                          truth));
    }
    return best;
}

// Returns the milliseconds from each change of the truth to the nearest change of the result.
double median_error_ms(const Truth& result, const Truth& truth, bool onset) {
    const auto changes = [onset](const Truth& list) {
        std::vector<double> at;
        for (std::size_t i = 1; i < list.size(); ++i) {
            if (list[i] != list[i - 1] && list[i] == onset) {
                at.push_back(static_cast<double>(i) * 10);
            }
        }
        return at;
    };
    const std::vector<double> found = changes(result);
    std::vector<double> errors;
    for (const double each : changes(truth)) {
        double nearest = 1e9;
        for (const double other : found) {
            nearest = std::min(nearest, std::abs(other - each));
        }
        errors.push_back(nearest);
    }
    return percentile(errors, 0.5);
}

void measure_activity(const std::string& name, const fs::path& folder) {
    std::mt19937 random(5);
    std::vector<Recording> list = read_recordings(folder);
    std::shuffle(list.begin(), list.end(), random);
    Sound call(RATE);
    for (const Recording& each : list) {
        if (call.size() < 600u * RATE) {
            append(call, louder(each.sound, gain_of(-10)));
            call.resize(call.size() + RATE / 2 + random() % (2 * RATE));
        }
    }
    const Truth truth = truth_of(call);
    const double power = loud_power(call);
    std::printf("activity, %s: %.0f s\n  %-12s %8s %8s %8s   %s\n", name.c_str(),
                static_cast<double>(call.size()) / RATE, "", "own", "WebRTC", "speex",
                "own onset and end, median error");
    for (const double snr : {CLEAN, 20.0, 10.0}) {
        Sound noisy = call;
        if (snr < CLEAN) {
            add_noise(noisy, power, snr, random);
        }
        const auto samples = through_the_line(noisy);
        const Truth own = by_own(samples);
        double webrtc = 0;
        for (int likelihood = 0; likelihood < 4; ++likelihood) {
            webrtc = std::max(webrtc, best_share(by_webrtc(samples, likelihood), truth));
        }
        double speex = 0;
        for (const auto& [start, go_on] : {std::pair{35, 20}, {60, 40}, {80, 65}, {95, 90}}) {
            speex = std::max(speex, best_share(by_speex(samples, start, go_on), truth));
        }
        const std::string condition =
            snr < CLEAN ? std::to_string(static_cast<int>(snr)) + " dB" : "clean";
        std::printf("  %-12s %6.1f %% %6.1f %% %6.1f %%   %.0f and %.0f ms\n", condition.c_str(),
                    share_right(own, truth), webrtc, speex, median_error_ms(own, truth, true),
                    median_error_ms(own, truth, false));
        std::fflush(stdout);
    }
}

// Processor seconds of this thread.
double cpu_seconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

using Indexes = std::vector<std::shared_ptr<const SampleIndex>>;

// Returns indexes of as many references as wanted: first recordings, then faster and slower copies
// of them. `played`, if given, receives what the references of the last index sound like.
Indexes indexes_of(const std::vector<Recording>& recordings, const std::vector<std::size_t>& wanted,
                   std::vector<Sound>* played = nullptr) {
    Indexes indexes;
    for (const std::size_t size : wanted) {
        SampleIndexBuilder builder;
        std::size_t count = 0;
        for (double speed = 1; count < size; speed += 0.013) {
            for (std::size_t i = 0; i < recordings.size() && count < size; ++i) {
                Sound sound = faster(recordings[i].sound, speed);
                if (builder.add(recordings[i].name, sound.data(), sound.size(), RATE).empty()) {
                    ++count;
                    if (played != nullptr) {
                        played->push_back(std::move(sound));
                    }
                }
            }
        }
        indexes.push_back(builder.build());
    }
    return indexes;
}

// Returns the processor seconds per second of a call whose both sides are searched, for each index.
// The indexes have turns of a few seconds of the call, and of several rounds the best time of each
// piece counts, because other work on the machine disturbs.
std::vector<double> costs(const std::vector<std::int16_t>& samples, const Indexes& indexes) {
    constexpr std::size_t PIECE = 4 * RATE;
    const std::size_t pieces = samples.size() / PIECE;
    std::vector<std::vector<double>> best(indexes.size(), std::vector<double>(pieces, 1e9));
    for (int round = 0; round < 4; ++round) {
        std::vector<SampleDetector> detectors;
        std::vector<ActivityDetector> activities(indexes.size(), ActivityDetector(RATE, {}));
        for (const auto& index : indexes) {
            detectors.emplace_back(index, RATE);
        }
        FoundList found;
        Changes changes;
        for (std::size_t piece = 0; piece < pieces; ++piece) {
            for (std::size_t i = 0; i < indexes.size(); ++i) {
                const double begun = cpu_seconds();
                for (std::size_t at = piece * PIECE; at < (piece + 1) * PIECE; at += PACKET) {
                    detectors[i].add(samples.data() + at, PACKET, found);
                    activities[i].add(samples.data() + at, PACKET, changes);
                }
                best[i][piece] = std::min(best[i][piece], cpu_seconds() - begun);
            }
        }
    }
    std::vector<double> result;
    for (const std::vector<double>& each : best) {
        const double all = std::accumulate(each.begin(), each.end(), 0.0);
        result.push_back(2 * all * RATE / static_cast<double>(pieces * PIECE));
    }
    return result;
}

std::vector<Recording> read_all(char** begin, char** end) {
    std::vector<Recording> recordings;
    for (char** each = begin; each != end; ++each) {
        for (Recording& one : read_recordings(*each)) {
            recordings.push_back(std::move(one));
        }
    }
    std::shuffle(recordings.begin(), recordings.end(), std::mt19937(3));
    return recordings;
}

// Every part of a large index must be found equally well.
void measure_many(char** begin, char** end) {
    constexpr std::size_t COUNT = 5000;
    constexpr std::size_t STEP = 15;
    std::vector<Sound> references;
    const auto index = indexes_of(read_all(begin + 1, end), {COUNT}, &references)[0];
    Others others(begin, begin + 1);
    print_head("5000 references");
    for (const double snr : {CLEAN, 10.0}) {
        for (std::size_t third = 0; third < 3; ++third) {
            std::mt19937 random(1);
            Tally tally;
            for (std::size_t i = third * COUNT / 3; i < (third + 1) * COUNT / 3; i += STEP) {
                if (references[i].size() >= RATE) {
                    play({"", 0, 0, -10, snr, 0, 1, -99}, i, references[i], index, others, random,
                         tally);
                }
            }
            const std::string name = std::string(snr < CLEAN ? "noise 10 dB below" : "-10 dB") +
                                     ", third " + std::to_string(third + 1);
            tally.print(name.c_str());
        }
    }
}

void measure_cost(char** begin, char** end) {
    const std::vector<std::size_t> sizes{50, 500, 5000};
    const std::vector<Recording> recordings = read_all(begin + 1, end);
    const Indexes indexes = indexes_of(recordings, sizes);
    const struct {
        const char* name;
        Sound sound;
    } calls[] = {
        {"other speech", Others(begin, begin + 1).next(100 * RATE)},
        {"nothing but references", Others(begin + 1, end).next(100 * RATE)},
    };
    for (const auto& call : calls) {
        std::printf("cost of a call, both features on both sides, 8 kHz, no pauses, %s\n",
                    call.name);
        const auto list = costs(through_the_line(louder(call.sound, 0.5)), indexes);
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            std::printf(
                "  %4zu references: %4.0f us a second, %5.0f calls a core, %.2f of 50; "
                "%zu KiB\n",
                sizes[i], 1e6 * list[i], 1 / list[i], list[i] / list[0],
                indexes[i]->bytes() / 1024);
        }
        std::fflush(stdout);
    }
    const auto index = indexes_of(recordings, {1})[0];
    for (const int rate : {8000, 16'000, 48'000}) {
        constexpr std::size_t CALLS = 500;
        std::vector<std::unique_ptr<SampleDetector>> detectors;
        std::vector<std::unique_ptr<ActivityDetector>> activities;
        detectors.reserve(2 * CALLS);
        activities.reserve(2 * CALLS);
        const std::size_t before = mallinfo2().uordblks;
        for (std::size_t i = 0; i < 2 * CALLS; ++i) {
            detectors.push_back(std::make_unique<SampleDetector>(index, rate));
            activities.push_back(std::make_unique<ActivityDetector>(rate, ActivityOptions{}));
        }
        std::printf("  memory of a call at %d Hz: %.1f KiB\n", rate,
                    static_cast<double>(mallinfo2().uordblks - before) / CALLS / 1024);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 2 ? argv[1] : "";
    try {
        if (what == "samples" && argc > 4) {
            measure_samples(argv[2], argv[3], Others(argv + 4, argv + argc));
        } else if (what == "tones") {
            measure_tones(Others(argv + 2, argv + argc));
        } else if (what == "false" && argc > 4) {
            measure_false(std::strtod(argv[2], nullptr), argv[3], Others(argv + 4, argv + argc));
        } else if (what == "activity" && argc == 4) {
            measure_activity(argv[2], argv[3]);
        } else if (what == "many" && argc > 3) {
            measure_many(argv + 2, argv + argc);
        } else if (what == "cost" && argc > 3) {
            measure_cost(argv + 2, argv + argc);
        } else {
            std::fprintf(stderr, "analysis_bench: see its first lines for how it is called\n");
            return 2;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "analysis_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
