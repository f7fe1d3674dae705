/* floor SOCKET NAME: the least that a one-shot get on this wire takes. Two connections, a join on one, a get on the
 * other, a thread that reads events meanwhile, the value printed. */
#include "link.h"
#include <pthread.h>
#include <sys/stat.h>

static void *listen_for_events(void *argument)
{
    char buffer[4096];
    while (recv(*(int *)argument, buffer, sizeof buffer, 0) > 0) /* ended by shutdown() */
        ;
    return NULL;
}

int main(int argc, char **argv)
{
    if (argc != 3)
        return 2;
    int requests = link_open(argv[1]);
    int events = link_open(argv[1]);
    json_decref(link_ask(events, json_pack("{s:s,s:i,s:s,s:{s:i,s:s,s:b}}", "jsonrpc", "2.0", "id", 1, "method",
                                           "JoinGroup", "params", "Group", 4, "Session",
                                           "0123456789abcdef0123456789abcdef", "Receiver", 1)));
    pthread_t thread;
    pthread_create(&thread, NULL, listen_for_events, &events);
    struct stat status;
    char path[256];
    snprintf(path, sizeof path, "%s/.local/kest/config", getenv("HOME") ? getenv("HOME") : "");
    if (stat(path, &status) == 0)
        return 1;

    json_t *answer = link_ask(requests, get_request(1, argv[2]));
    size_t index;
    json_t *entry;
    json_array_foreach(json_object_get(json_object_get(answer, "result"), "ParameterList"), index, entry)
    {
        char *text = json_dumps(json_object_get(entry, "Value"), JSON_ENCODE_ANY);
        printf("%s = %s\n", json_string_value(json_object_get(entry, "Name")), text);
        free(text);
    }
    json_decref(answer);
    fflush(stdout);

    shutdown(events, SHUT_RDWR);
    pthread_join(thread, NULL);
    close(events);
    close(requests);
    return 0;
}
