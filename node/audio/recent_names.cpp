#include "node/audio/recent_names.h"

#include <algorithm>
#include <functional>
#include <new>

namespace qv::node {

namespace {

std::uint64_t hash_of(const std::string& name) {
    const std::uint64_t hash = std::hash<std::string>()(name);
    return hash != 0 ? hash : 1;
}

}  // namespace

RecentNames::RecentNames(std::size_t most)
    : count_(most / Group().size()),
      groups_(static_cast<Group*>(std::calloc(count_, sizeof(Group)))) {
    if (groups_ == nullptr) {
        throw std::bad_alloc();
    }
}

void RecentNames::add(const std::string& name) {
    const std::uint64_t hash = hash_of(name);
    const LockGuard lock(mutex_);
    Group& group = group_of(hash);
    auto* place = std::find(group.begin(), group.end(), hash);
    if (place == group.end()) {
        place = std::find(group.begin(), group.end() - 1, 0);  // Or the oldest.
    }
    std::copy_backward(group.begin(), place, place + 1);
    group[0] = hash;
}

void RecentNames::forget(const std::string& name) {
    const std::uint64_t hash = hash_of(name);
    const LockGuard lock(mutex_);
    Group& group = group_of(hash);
    std::replace(group.begin(), group.end(), hash, std::uint64_t{0});
}

bool RecentNames::has(const std::string& name) const {
    const std::uint64_t hash = hash_of(name);
    const LockGuard lock(mutex_);
    const Group& group = group_of(hash);
    return std::find(group.begin(), group.end(), hash) != group.end();
}

}  // namespace qv::node
