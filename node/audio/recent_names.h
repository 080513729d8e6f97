// The names of files that a folder is known to hold, so that the disk need not be asked.
//
// Over months, a program makes more files than it can remember, and others remove many of them. So
// a new name replaces an old one: the oldest of the eight that its hash selects. Adding needs no
// memory, and takes the same short time however many names there are. Any thread may call the
// functions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "quorvane_lib/mutex.h"

namespace qv::node {

class RecentNames {
  public:
    // About so many names are known. They take 16 MiB, which are only used as names are added.
    static constexpr std::size_t MOST = std::size_t{1} << 21;

    // `most` is a power of two and at least 8. Throws std::bad_alloc.
    explicit RecentNames(std::size_t most = MOST);

    void add(const std::string& name) QV_EXCLUDES(mutex_);
    void forget(const std::string& name) QV_EXCLUDES(mutex_);
    bool has(const std::string& name) const QV_EXCLUDES(mutex_);

  private:
    // Hashes of names, the newest first. 0 where there is none.
    using Group = std::array<std::uint64_t, 8>;
    struct Free {
        void operator()(Group* groups) const { std::free(groups); }
    };

    Group& group_of(std::uint64_t hash) const QV_REQUIRES(mutex_) {
        return groups_[hash & (count_ - 1)];
    }

    const std::size_t count_;  // Of groups.
    mutable Mutex mutex_;
    const std::unique_ptr<Group[], Free> groups_;
};

}  // namespace qv::node
