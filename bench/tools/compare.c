/* compare ROUNDS LABEL COMMAND [ARGUMENT...] [-- LABEL COMMAND [ARGUMENT...]]...
 * Runs the commands in rotation, ROUNDS times each after one round to warm up, and prints a line for each: its label,
 * the medians of wall time and CPU time in ms and of peak memory in KiB, and the medians of their ratios to the first
 * command's, taken round by round, so that a machine that speeds up or slows down meanwhile does not matter. A first
 * argument
 * "<FILE" gives the command its standard input; its output goes to /dev/null. A command that fails ends the run. */
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char **environ;

enum { WALL, CPU, MEMORY, MEASURES, LIMIT = 16 };

struct command {
    char *label, *input, **argv;
    double *samples[MEASURES];
};

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec * 1e3 + (double)time.tv_nsec / 1e6;
}

static double milliseconds(struct timeval time)
{
    return (double)time.tv_sec * 1e3 + (double)time.tv_usec / 1e3;
}

static int ascending(const void *left, const void *right)
{
    double a = *(const double *)left, b = *(const double *)right;
    return (a > b) - (a < b);
}

static double median(double *values, int count)
{
    qsort(values, (size_t)count, sizeof *values, ascending);
    return count % 2 ? values[count / 2] : (values[count / 2 - 1] + values[count / 2]) / 2;
}

static void run(struct command *command, int round)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, command->input, O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    int status;
    struct rusage usage;
    double began = now();
    if (posix_spawnp(&pid, command->argv[0], &actions, NULL, command->argv, environ) ||
        wait4(pid, &status, 0, &usage) < 0) {
        fprintf(stderr, "compare: cannot run %s\n", command->argv[0]);
        exit(1);
    }
    double ended = now();
    posix_spawn_file_actions_destroy(&actions);
    if (status != 0) {
        fprintf(stderr, "compare: %s failed (wait status %d)\n", command->label, status);
        exit(1);
    }
    if (round < 0)
        return;
    command->samples[WALL][round] = ended - began;
    command->samples[CPU][round] = milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime);
    command->samples[MEMORY][round] = (double)usage.ru_maxrss;
}

int main(int argc, char **argv)
{
    static struct command commands[LIMIT];
    int rounds = argc > 3 ? atoi(argv[1]) : 0, count = 0;
    if (rounds < 1)
        return 2;
    for (int i = 2; i < argc && count < LIMIT; count++) {
        struct command *command = &commands[count];
        command->label = argv[i++];
        command->input = "/dev/null";
        if (i < argc && argv[i][0] == '<')
            command->input = argv[i++] + 1;
        command->argv = argv + i;
        while (i < argc && strcmp(argv[i], "--"))
            i++;
        if (i < argc)
            argv[i++] = NULL;
        for (int measure = 0; measure < MEASURES; measure++)
            command->samples[measure] = calloc((size_t)rounds, sizeof(double));
    }
    for (int round = -1; round < rounds; round++)
        for (int i = 0; i < count; i++)
            run(&commands[i], round);

    double *ratios[LIMIT][MEASURES];
    for (int i = 0; i < count; i++)
        for (int measure = 0; measure < MEASURES; measure++) {
            ratios[i][measure] = calloc((size_t)rounds, sizeof(double));
            for (int round = 0; round < rounds; round++) {
                double base = commands[0].samples[measure][round];
                ratios[i][measure][round] = commands[i].samples[measure][round] / (base > 0 ? base : 1e-3);
            }
        }
    for (int i = 0; i < count; i++) {
        printf("%s", commands[i].label);
        for (int measure = 0; measure < MEASURES; measure++)
            printf(" %.3f", median(commands[i].samples[measure], rounds));
        for (int measure = 0; measure < MEASURES; measure++)
            printf(" %.3f", median(ratios[i][measure], rounds));
        printf("\n");
    }
    return 0;
}
