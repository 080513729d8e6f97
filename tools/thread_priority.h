// Lower priorities for threads that share a core with a thread that receives packets. Packets are
// lost when they wait for longer than a moment. Other work can wait in memory.
#pragma once

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace qv::tools {

// By how much, as of nice(1). On a core that never rests, a thread of each kind gets about this
// share of what a thread that receives gets.
enum class Priority {
    BUFFERED = 5,     // A third: for what waits in a buffer of bounded size, as audio for the disk.
    BACKGROUND = 10,  // A tenth: for what can take as long as it likes.
};

// Gives the calling thread a lower priority than the program's first thread has. Where the program
// has real-time priority, this thread has none.
inline void lower_priority(Priority priority) {
    constexpr int lowest = 19;
    if (const int policy = ::sched_getscheduler(0); policy == SCHED_FIFO || policy == SCHED_RR) {
        const sched_param none{};
        ::sched_setscheduler(0, SCHED_OTHER, &none);
    }
    // On Linux these functions concern one thread only.
    errno = 0;
    const int first = ::getpriority(PRIO_PROCESS, static_cast<id_t>(::getpid()));
    if (errno == 0) {
        ::setpriority(PRIO_PROCESS, 0, std::min(first + static_cast<int>(priority), lowest));
    }
}

}  // namespace qv::tools
