// Lower priorities for threads that share a core with a thread that receives packets. Packets are
// lost when they wait for longer than a moment. Other work can wait in memory.
#pragma once

#include <sys/resource.h>

namespace qv::tools {

// As of nice(1). On a core that never rests, a thread of each kind gets about this share of what a
// thread of normal priority gets.
enum class Priority {
    BUFFERED = 5,     // A third: for what waits in a buffer of bounded size, as audio for the disk.
    BACKGROUND = 10,  // A tenth: for what can take as long as it likes.
};

// Sets the priority of the calling thread. Call it at the beginning of the thread. Raising it again
// needs privileges.
inline void lower_priority(Priority priority) {
    // On Linux this concerns only the calling thread.
    ::setpriority(PRIO_PROCESS, 0, static_cast<int>(priority));
}

}  // namespace qv::tools
