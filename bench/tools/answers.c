/* answers SOCKET [METHOD:NAME=FILE...]: a daemon that has its answers ready. A request of METHOD whose first name is
 * NAME gets the JSON text in FILE as its result; any other GetParameterValues gets one number per name, any other
 * request an empty result. Requests are decoded and small answers encoded with Jansson. One thread, epoll. */
#include "link.h"
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/stat.h>

struct rule {
    char *key; /* "METHOD:NAME" */
    char *text;
    size_t length;
};

struct client {
    size_t length, capacity;
    char *buffer;
};

static struct rule rules[64];
static int rule_count;
static struct client clients[1024];

static void add_rule(char *argument)
{
    char *file = strrchr(argument, '=');
    if (!file || rule_count == 64)
        exit(2);
    *file++ = '\0';
    struct stat status;
    int fd = open(file, O_RDONLY);
    if (fd < 0 || fstat(fd, &status))
        die(file);
    struct rule *rule = &rules[rule_count++];
    rule->key = argument;
    rule->text = malloc((size_t)status.st_size + 1);
    ssize_t got;
    while ((got = read(fd, rule->text + rule->length, (size_t)status.st_size - rule->length)) > 0)
        rule->length += (size_t)got;
    close(fd);
}

static void send_all(int fd, const char *text, size_t length)
{
    while (length > 0) {
        ssize_t sent = send(fd, text, length, MSG_NOSIGNAL); /* clients here read what they asked for */
        if (sent < 0 && errno == EINTR)
            continue;
        if (sent <= 0)
            return;
        text += sent;
        length -= (size_t)sent;
    }
}

static void answer(int fd, const char *line, size_t length)
{
    json_t *request = json_loadb(line, length, 0, NULL);
    const char *method = json_string_value(json_object_get(request, "method"));
    json_t *id = json_object_get(request, "id");
    if (!method || !id) {
        json_decref(request);
        return;
    }
    json_t *params = json_object_get(request, "params");
    json_t *names = json_object_get(params, "ParameterNames");
    json_t *first = json_array_get(names, 0);
    if (!first)
        first = json_object_get(params, "ParameterPath");
    char key[512], head[128];
    snprintf(key, sizeof key, "%s:%s", method, first ? json_string_value(first) : "");
    for (int i = 0; i < rule_count; i++)
        if (!strcmp(rules[i].key, key)) {
            int n = snprintf(head, sizeof head,
                             "{\"jsonrpc\":\"2.0\",\"id\":%lld,\"result\":", (long long)json_integer_value(id));
            send_all(fd, head, (size_t)n);
            send_all(fd, rules[i].text, rules[i].length);
            send_all(fd, "}\n", 2);
            json_decref(request);
            return;
        }
    json_t *result = json_object();
    if (!strcmp(method, "GetParameterValues")) {
        json_t *list = json_array(), *name;
        size_t index;
        json_array_foreach(names, index, name)
            json_array_append_new(list, json_pack("{s:O,s:i}", "Name", name, "Value", 1234567));
        json_object_set_new(result, "ParameterList", list);
    }
    json_t *message = json_pack("{s:s,s:O,s:o}", "jsonrpc", "2.0", "id", id, "result", result);
    static char buffer[1 << 20];
    size_t size = json_dumpb(message, buffer, sizeof buffer - 1, JSON_COMPACT);
    buffer[size++] = '\n';
    send_all(fd, buffer, size);
    json_decref(message);
    json_decref(request);
}

static void serve(int fd)
{
    struct client *client = &clients[fd];
    if (client->capacity - client->length < 65536) {
        client->capacity = client->capacity ? client->capacity * 2 : 131072;
        client->buffer = realloc(client->buffer, client->capacity);
    }
    ssize_t got = recv(fd, client->buffer + client->length, client->capacity - client->length, 0);
    if (got <= 0) {
        close(fd);
        client->length = 0;
        return;
    }
    char *begin = client->buffer, *search = begin + client->length, *end;
    client->length += (size_t)got;
    char *limit = client->buffer + client->length;
    while ((end = memchr(search, '\n', (size_t)(limit - search)))) {
        answer(fd, begin, (size_t)(end - begin));
        begin = search = end + 1;
    }
    client->length = (size_t)(limit - begin);
    memmove(client->buffer, begin, client->length);
}

int main(int argc, char **argv)
{
    if (argc < 2)
        return 2;
    signal(SIGPIPE, SIG_IGN);
    for (int i = 2; i < argc; i++)
        add_rule(argv[i]);
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    strncpy(address.sun_path, argv[1], sizeof address.sun_path - 1);
    unlink(argv[1]);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    if (listener < 0 || bind(listener, (struct sockaddr *)&address, sizeof address) || listen(listener, 128))
        die(argv[1]);
    int poll = epoll_create1(0);
    struct epoll_event event = {.events = EPOLLIN, .data.fd = listener};
    epoll_ctl(poll, EPOLL_CTL_ADD, listener, &event);
    for (;;) {
        struct epoll_event events[64];
        int count = epoll_wait(poll, events, 64, -1);
        for (int i = 0; i < count; i++) {
            if (events[i].data.fd != listener) {
                serve(events[i].data.fd);
                continue;
            }
            int fd = accept(listener, NULL, NULL);
            if (fd < 0 || fd >= (int)(sizeof clients / sizeof *clients)) {
                close(fd);
                continue;
            }
            event.data.fd = fd;
            epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event);
        }
    }
}
