/* parsedump FILE...: decodes each JSON text with Jansson and encodes it again to standard output. */
#include <fcntl.h>
#include <jansson.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    for (int i = 1; i < argc; i++) {
        int fd = open(argv[i], O_RDONLY);
        struct stat status;
        if (fd < 0 || fstat(fd, &status))
            return 1;
        char *text = malloc((size_t)status.st_size + 1);
        size_t length = 0;
        ssize_t got;
        while ((got = read(fd, text + length, (size_t)status.st_size - length)) > 0)
            length += (size_t)got;
        close(fd);
        json_t *json = json_loadb(text, length, JSON_ALLOW_NUL, NULL);
        free(text);
        char *again = json ? json_dumps(json, JSON_ENCODE_ANY) : NULL;
        if (!again)
            return 1;
        fputs(again, stdout);
        free(again);
        json_decref(json);
    }
    return fflush(stdout) ? 1 : 0;
}
