// Opens sound files with libsndfile. Any thread may call it; a sound file belongs to one thread at
// a time.
#pragma once

#include <sndfile.h>

#include <functional>
#include <memory>
#include <string>

#include "quorvane_lib/mutex.h"

namespace qv::tools {

struct SoundFileCloser {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileCloser>;

// `open` opens a file with a function of libsndfile. If it returns null, sets `error` to the
// reason. libsndfile keeps one reason for all threads, hence the lock.
inline SoundFile open_sound_file(const std::function<SNDFILE*()>& open, std::string& error) {
    static Mutex mutex;
    const LockGuard lock(mutex);
    SoundFile file(open());
    if (file == nullptr) {
        error = sf_strerror(nullptr);
    }
    return file;
}

}  // namespace qv::tools
