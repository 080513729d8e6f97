/* A function that the address sanitizer looks for when it starts. Where the first allocation
 * of a process is one that libp11-kit makes as it is loaded, the sanitizer starts inside of
 * newlocale(), and for the text of the failed lookup's error the C library takes and gives
 * back the lock that newlocale() holds. The process then never ends: the lock is broken. */
char *swift_demangle(void) {
    return 0;
}
