/* pingpong SOCKET COUNT NAME: COUNT gets one after the other, encoded and decoded with Jansson, nothing printed. */
#include "link.h"

int main(int argc, char **argv)
{
    if (argc != 4)
        return 2;
    int fd = link_open(argv[1]);
    for (json_int_t id = 1; id <= atoll(argv[2]); id++) {
        json_t *answer = link_ask(fd, get_request(id, argv[3]));
        if (!json_object_get(answer, "result"))
            return 1;
        json_decref(answer);
    }
    return 0;
}
