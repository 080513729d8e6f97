// Storage for a static object whose owner decides whether it is destroyed.
//
// The object is constructed with the other static objects of the source that defines it. No
// thread needs a lock to reach it, because it exists from the mapping of the shared object on.
#pragma once

namespace qv::freeswitch {

template <class Object>
union Undestroyed {
    Undestroyed() : object() {}
    Undestroyed(const Undestroyed&) = delete;
    Undestroyed& operator=(const Undestroyed&) = delete;
    // NOLINTNEXTLINE(modernize-use-equals-default): a defaulted one would be deleted.
    ~Undestroyed() {}

    Object object;
};

}  // namespace qv::freeswitch
