/* What the measuring programs share: a UNIX stream link that carries one JSON text per line. */
#ifndef BENCH_LINK_H
#define BENCH_LINK_H

#include <jansson.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static inline void die(const char *what)
{
    perror(what);
    exit(1);
}

static inline int link_open(const char *path)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, (struct sockaddr *)&address, sizeof address))
        die(path);
    return fd;
}

/* Receives up to the next line feed into `buffer`; returns the length with it. One answer at a time. */
static inline size_t link_receive(int fd, char *buffer, size_t size)
{
    size_t length = 0;
    while (length == 0 || buffer[length - 1] != '\n') {
        ssize_t got = recv(fd, buffer + length, size - length, 0);
        if (got <= 0)
            die("recv");
        length += (size_t)got;
    }
    return length;
}

/* Sends `request`, which it releases, and returns the decoded answer. */
static inline json_t *link_ask(int fd, json_t *request)
{
    static __thread char buffer[65536];
    size_t length = json_dumpb(request, buffer, sizeof buffer - 1, JSON_COMPACT);
    buffer[length++] = '\n';
    json_decref(request);
    if (send(fd, buffer, length, MSG_NOSIGNAL) != (ssize_t)length)
        die("send");
    length = link_receive(fd, buffer, sizeof buffer);
    json_t *answer = json_loadb(buffer, length, 0, NULL);
    if (!answer)
        die("answer");
    return answer;
}

static inline json_t *get_request(json_int_t id, const char *name)
{
    return json_pack("{s:s,s:I,s:s,s:{s:[s]}}", "jsonrpc", "2.0", "id", id, "method", "GetParameterValues", "params",
                     "ParameterNames", name);
}

#endif
