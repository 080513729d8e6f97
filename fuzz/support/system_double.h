// The operating system as the module sees it, for a target that runs the whole module.
//
// A program that links it has its own sendto, socket, bind, ioctl, getsockopt, clock_gettime,
// nanosleep, fopen64 and stat. Datagrams are kept inside the program, the steady clock stands
// still until somebody sleeps or sets it, and the module's configuration file is a text in
// memory. Everything else goes to the system.
//
// There is one, system_double(). The thread that runs the inputs uses it; other threads may
// only read the clocks.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

namespace qv::fuzz {

// What becomes of one sendto.
struct SendOutcome {
    enum class Kind { DONE, FAILS, SHORT };
    Kind kind = Kind::DONE;
    int value = 0;  // The errno value of a failure; the bytes that a short send takes.
};

// One sendto that was tried.
struct SendAttempt {
    int descriptor = -1;
    std::uintptr_t data = 0;
    std::int64_t clock_us = 0;
};

struct ConfigurationFile {
    enum class Kind { TEXT, MISSING, FOLDER };
    Kind kind = Kind::TEXT;
    std::string text;
};

struct SystemDouble {
    ConfigurationFile file;

    std::atomic<std::int64_t> steady_us{1000000};
    // The wall clock stands still at this time, too; 0: it does not.
    std::atomic<std::int64_t> wall_us{0};

    // The send buffer of every socket is full until then, by the steady clock.
    std::int64_t room_at_us = 0;
    std::deque<SendOutcome> outcomes;   // Of the next sends; the others are done.
    std::vector<SendAttempt> attempts;  // So far.
    // Gets every datagram in the form of datagram_text().
    std::function<void(std::string)> datagram_sink;

    int socket_error = 0;  // Unless 0, the next socket() fails with it.
    int bind_error = 0;    // Unless 0, the next bind() fails with it.
    int last_socket = -1;  // What the last socket() returned.
};

SystemDouble& system_double();

// A datagram in one text. Numbers are as the host orders them.
std::string datagram_text(unsigned family, const unsigned char (&address)[4], unsigned port,
                          const void* data, std::size_t size);

// The real wall clock in microseconds.
std::int64_t real_wall_us();

}  // namespace qv::fuzz
