// Every error that the system may report for a UDP socket over IPv4, by system call: those that
// the manual pages of the call, of ip(7) and of udp(7) name, those that come from ICMP messages,
// and those of filters and limits of the system.
//
// Constants: any thread may read them.
#pragma once

#include <cerrno>

namespace qv::tests {

struct SystemError {
    int number;        // Of errno.
    const char* text;  // As a log line ends.
};

inline constexpr SystemError SOCKET_ERRORS[] = {
    {EPERM, "error (1): Operation not permitted"},
    {EINTR, "error (4): Interrupted system call"},
    {ENOMEM, "error (12): Cannot allocate memory"},
    {EACCES, "error (13): Permission denied"},
    {EINVAL, "error (22): Invalid argument"},
    {ENFILE, "error (23): Too many open files in system"},
    {EMFILE, "error (24): Too many open files"},
    {EPROTONOSUPPORT, "error (93): Protocol not supported"},
    {ESOCKTNOSUPPORT, "error (94): Socket type not supported"},
    {EAFNOSUPPORT, "error (97): Address family not supported by protocol"},
    {ENOBUFS, "error (105): No buffer space available"},
};

inline constexpr SystemError BIND_ERRORS[] = {
    {EPERM, "error (1): Operation not permitted"},
    {EBADF, "error (9): Bad file descriptor"},
    {EAGAIN, "error (11): Resource temporarily unavailable"},
    {ENOMEM, "error (12): Cannot allocate memory"},
    {EACCES, "error (13): Permission denied"},
    {EFAULT, "error (14): Bad address"},
    {EINVAL, "error (22): Invalid argument"},
    {ENOTSOCK, "error (88): Socket operation on non-socket"},
    {EOPNOTSUPP, "error (95): Operation not supported"},
    {EAFNOSUPPORT, "error (97): Address family not supported by protocol"},
    {EADDRINUSE, "error (98): Address already in use"},
    {EADDRNOTAVAIL, "error (99): Cannot assign requested address"},
    {ENETDOWN, "error (100): Network is down"},
    {ENOBUFS, "error (105): No buffer space available"},
    {EISCONN, "error (106): Transport endpoint is already connected"},
    {EALREADY, "error (114): Operation already in progress"},
    {EINPROGRESS, "error (115): Operation now in progress"},
};

inline constexpr SystemError SENDTO_ERRORS[] = {
    {EPERM, "error (1): Operation not permitted"},
    {ENOENT, "error (2): No such file or directory"},
    {EINTR, "error (4): Interrupted system call"},
    {EIO, "error (5): Input/output error"},
    {EBADF, "error (9): Bad file descriptor"},
    {EAGAIN, "error (11): Resource temporarily unavailable"},
    {ENOMEM, "error (12): Cannot allocate memory"},
    {EACCES, "error (13): Permission denied"},
    {EFAULT, "error (14): Bad address"},
    {EINVAL, "error (22): Invalid argument"},
    {EPIPE, "error (32): Broken pipe"},
    {ENOPKG, "error (65): Package not installed"},
    {ENONET, "error (64): Machine is not on the network"},
    {EPROTO, "error (71): Protocol error"},
    {ENOTSOCK, "error (88): Socket operation on non-socket"},
    {EDESTADDRREQ, "error (89): Destination address required"},
    {EMSGSIZE, "error (90): Message too long"},
    {ENOPROTOOPT, "error (92): Protocol not available"},
    {ESOCKTNOSUPPORT, "error (94): Socket type not supported"},
    {EOPNOTSUPP, "error (95): Operation not supported"},
    {EAFNOSUPPORT, "error (97): Address family not supported by protocol"},
    {EADDRINUSE, "error (98): Address already in use"},
    {EADDRNOTAVAIL, "error (99): Cannot assign requested address"},
    {ENETDOWN, "error (100): Network is down"},
    {ENETUNREACH, "error (101): Network is unreachable"},
    {ECONNABORTED, "error (103): Software caused connection abort"},
    {ECONNRESET, "error (104): Connection reset by peer"},
    {ENOBUFS, "error (105): No buffer space available"},
    {EISCONN, "error (106): Transport endpoint is already connected"},
    {ENOTCONN, "error (107): Transport endpoint is not connected"},
    {ETIMEDOUT, "error (110): Connection timed out"},
    {ECONNREFUSED, "error (111): Connection refused"},
    {EHOSTDOWN, "error (112): Host is down"},
    {EHOSTUNREACH, "error (113): No route to host"},
    {EALREADY, "error (114): Operation already in progress"},
};

inline constexpr SystemError CONNECT_ERRORS[] = {
    {EPERM, "error (1): Operation not permitted"},
    {EINTR, "error (4): Interrupted system call"},
    {EBADF, "error (9): Bad file descriptor"},
    {EAGAIN, "error (11): Resource temporarily unavailable"},
    {ENOMEM, "error (12): Cannot allocate memory"},
    {EACCES, "error (13): Permission denied"},
    {EFAULT, "error (14): Bad address"},
    {EINVAL, "error (22): Invalid argument"},
    {EPROTOTYPE, "error (91): Protocol wrong type for socket"},
    {ENOTSOCK, "error (88): Socket operation on non-socket"},
    {EAFNOSUPPORT, "error (97): Address family not supported by protocol"},
    {EADDRINUSE, "error (98): Address already in use"},
    {EADDRNOTAVAIL, "error (99): Cannot assign requested address"},
    {ENETDOWN, "error (100): Network is down"},
    {ENETUNREACH, "error (101): Network is unreachable"},
    {ECONNRESET, "error (104): Connection reset by peer"},
    {ENOBUFS, "error (105): No buffer space available"},
    {EISCONN, "error (106): Transport endpoint is already connected"},
    {ETIMEDOUT, "error (110): Connection timed out"},
    {ECONNREFUSED, "error (111): Connection refused"},
    {EHOSTUNREACH, "error (113): No route to host"},
    {EALREADY, "error (114): Operation already in progress"},
    {EINPROGRESS, "error (115): Operation now in progress"},
    {EOPNOTSUPP, "error (95): Operation not supported"},
};

inline constexpr SystemError GETSOCKNAME_ERRORS[] = {
    {EBADF, "error (9): Bad file descriptor"},
    {EFAULT, "error (14): Bad address"},
    {EINVAL, "error (22): Invalid argument"},
    {ENOTSOCK, "error (88): Socket operation on non-socket"},
    {EOPNOTSUPP, "error (95): Operation not supported"},
    {ENOBUFS, "error (105): No buffer space available"},
};

}  // namespace qv::tests
