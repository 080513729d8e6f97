/*
 * A media node to start from: decodes the packets of all calls and prints a line for each.
 *
 *   cc -std=c99 -O2 -Iinclude examples/receiver.c -o receiver
 *   ./receiver 127.0.0.1 5090
 *
 * Put your own code into print_packet(). End the program with Ctrl-C. docs/protocol.md describes
 * the packets and what to do about lost, late and copied ones, which this example does not do.
 */
#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <inttypes.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>

#include "quorvane/media_packet_c.h"

static void print_uuid(const unsigned char* uuid) {
    for (size_t i = 0; i < QUORVANE_UUID_SIZE; ++i) {
        printf("%s%02x", i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "", uuid[i]);
    }
}

/* Prints text from the network without the characters that control a terminal. */
static void print_text(const char* text) {
    for (; *text != '\0'; ++text) {
        putchar(iscntrl((unsigned char)*text) ? '?' : *text);
    }
}

static void print_packet(const struct quorvane_packet* packet) {
    print_uuid(packet->call_uuid);
    switch (packet->type) {
        case QUORVANE_START:
            printf(" start: %s reference=", quorvane_outbound(packet) ? "outbound" : "inbound");
            print_text(packet->call_reference);
            printf(" features=%02x%02x\n", packet->features.supported, packet->features.active);
            break;
        case QUORVANE_DATA: /* quorvane_sample(packet, i) is a sample, for i < sample_count. */
            printf(" data: %s sequence_number=%" PRIu32 " sample_offset=%" PRIu32
                   " sample_count=%d\n",
                   quorvane_terminator_side(packet) ? "terminator" : "originator",
                   packet->sequence_number, packet->sample_offset, packet->sample_count);
            break;
        case QUORVANE_CONTROL:
            printf(" control: features=%02x%02x\n", packet->features.supported,
                   packet->features.active);
            break;
        case QUORVANE_TERMINATE:
            printf(" terminate\n");
            break;
    }
}

/* A socket bound to the address, or -1 after a message. */
static int listen_on(const char* address, const char* port) {
    char* rest = NULL;
    const unsigned long number = strtoul(port, &rest, 10);
    if (!isdigit((unsigned char)*port) || *rest != '\0' || number > 65535) {
        fprintf(stderr, "not a port: %s\n", port);
        return -1;
    }
    struct sockaddr_in local;
    socklen_t size = sizeof(local);
    memset(&local, 0, sizeof(local));
    local.sin_family = AF_INET;
    local.sin_port = htons((uint16_t)number);
    if (inet_pton(AF_INET, address, &local.sin_addr) != 1) {
        fprintf(stderr, "not an IPv4 address: %s\n", address);
        return -1;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0 || bind(fd, (const struct sockaddr*)&local, size) != 0 ||
        getsockname(fd, (struct sockaddr*)&local, &size) != 0) {
        fprintf(stderr, "cannot listen on %s:%s: %s\n", address, port, strerror(errno));
        return -1;
    }
    printf("listening on %s:%d\n", address, ntohs(local.sin_port));
    return fd;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s ADDRESS PORT\n", argv[0]);
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    const int fd = listen_on(argv[1], argv[2]);
    while (fd >= 0) {
        unsigned char datagram[65536];
        struct quorvane_packet packet;
        const ssize_t size = recv(fd, datagram, sizeof(datagram), 0);
        if (size < 0) {
            perror("cannot receive");
            break;
        }
        const enum quorvane_result result = quorvane_decode(datagram, (size_t)size, &packet);
        if (result == QUORVANE_OK) {
            print_packet(&packet);
        } else {
            printf("refused: %s (%zd bytes)\n", quorvane_describe(result), size);
        }
    }
    return 1;
}
