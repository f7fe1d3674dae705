// A shell that only edits lines: what the editor's tests drive. Every line read is answered with "got <line>", the line
// in JSON. Lines with a meaning of their own:
//   part TEXT        prints TEXT without a line end        sleep MS     waits
//   half MS          begins a row and waits
//   busy MS          computes, with no wait point
//   list N           shows N names in columns              bar N LABEL  draws the progress bar
//   handler note|return|none   SIGINT's disposition while reading
//   child COMMAND    runs it                               secret       reads a line without echo
//   later COMMAND    the same when something was typed     quit         ends
//   quiet COMMAND    the same without an answer
// Descriptor 3, when it is open, takes orders for a second thread: "event TEXT", "shout TEXT" (without a word to the
// editor, and without a line end), "hide", "show", "stop", "drop".
// Environment: DEMO_PROMPT, DEMO_HISTORY (a file), DEMO_WORDS (a JSON array of candidates), DEMO_SLOW (milliseconds
// that a callback waits), DEMO_TIMEOUT, DEMO_HINTS, DEMO_COLORS,
// DEMO_MANY (so many candidates more), DEMO_UNBUFFERED.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <unistd.h>

#include <jansson.h>

#include "platform/ve_history.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"

namespace
{

int control[2];
json_t *words;
ve_history history;
int slow_ms;

void order(const std::string &line)
{
    if (line.starts_with("event ")) {
        const std::string text = "\nEVENT " + line.substr(6) + "\n";
        ve_rl_write_control_char(control[1], ve_rl_hide);
        ve_out_direct(text.data(), text.size());
        ve_rl_write_control_char(control[1], ve_rl_show);
    } else if (line.starts_with("shout ")) {
        ve_out_direct(line.data() + strlen("shout "), line.size() - strlen("shout "));
    } else if (line == "hide") {
        ve_rl_write_control_char(control[1], ve_rl_hide);
    } else if (line == "show") {
        ve_rl_write_control_char(control[1], ve_rl_show);
    } else if (line == "stop") {
        ve_rl_write_control_char(control[1], ve_rl_stop);
    } else if (line == "drop") {
        ve_rl_write_control_char(control[1], ve_rl_hide);
        ve_out_direct("dropped\n", 8);
        ve_rl_write_control_char(control[1], ve_rl_stop);
    } else if (line.starts_with("flood ")) {
        for (int i = 0; i < atoi(line.c_str() + 6); ++i)
            order("event " + std::to_string(i));
    }
}

void *take_orders(void *)
{
    FILE *orders = fdopen(3, "r");
    char line[4096];
    while (fgets(line, sizeof line, orders) != nullptr) {
        line[strcspn(line, "\n")] = '\0';
        order(line);
    }
    return nullptr;
}

size_t word_start(const char *line, size_t cursor)
{
    size_t start = 0;
    for (size_t i = 0; i < cursor; ++i)
        if (strchr(" .=/\"'", line[i]) != nullptr)
            start = i + 1;
    return start;
}

void autocomplete(const char *line, size_t cursor, json_t *candidates)
{
    if (slow_ms > 0 && ve_wait_sleep_ms(slow_ms) < 0)
        return;
    const size_t start = word_start(line, cursor);
    ve_rl_set_completion_start(start);
    for (size_t i = 0; i < json_array_size(words); ++i) {
        json_t *word = json_array_get(words, i);
        if (strncmp(json_string_value(word), line + start, cursor - start) == 0)
            json_array_append(candidates, word);
    }
}

char *hint(const char *line)
{
    json_t *found = json_array();
    const size_t cursor = strlen(line);
    autocomplete(line, cursor, found);
    char *text = nullptr;
    if (json_array_size(found) == 1)
        text = strdup(json_string_value(json_array_get(found, 0)) + (cursor - word_start(line, cursor)));
    json_decref(found);
    return text;
}

void note(int)
{
    ve_wait_note_interrupt();
}

void come_back(int) {}

void show_list(int count)
{
    json_t *names = json_array();
    for (int i = 0; i < count; ++i)
        json_array_append_new(names, json_string(("name" + std::to_string(i)).c_str()));
    ve_rl_show_list(names);
    json_decref(names);
}

void read_secret()
{
    char secret[100] = "";
    ve_printf("secret: ");
    ve_out_flush();
    ve_rl_echo_off(STDIN_FILENO);
    pollfd input{STDIN_FILENO, POLLIN, 0};
    ve_wait_poll(&input, 1, -1);
    const ssize_t count = read(STDIN_FILENO, secret, sizeof secret - 1);
    ve_rl_echo_on(STDIN_FILENO);
    ve_printf("\nread %zd bytes\n", count);
}

void run(const char *line)
{
    int number = 0;
    int used = 0;
    if (strncmp(line, "part ", 5) == 0) {
        ve_printf("%s", line + 5);
        return;
    }
    if (sscanf(line, "half %d", &number) == 1) {
        ve_printf("half");
        ve_out_flush();
        ve_wait_sleep_ms(number);
        return;
    }
    if (sscanf(line, "busy %d", &number) == 1) {
        for (const int64_t end = ve_wait_deadline(number); ve_wait_deadline(0) < end;)
            ;
    } else if (sscanf(line, "sleep %d", &number) == 1) {
        ve_wait_sleep_ms(number);
    } else if (sscanf(line, "list %d", &number) == 1) {
        show_list(number);
    } else if (sscanf(line, "bar %d %n", &number, &used) == 1) {
        ve_rl_draw_progressbar(number, line + used);
        if (ve_out_is_terminal())
            ve_puts("");
    } else if (strncmp(line, "child ", 6) == 0 || strncmp(line, "later ", 6) == 0) {
        ve_out_flush();
        pollfd input{STDIN_FILENO, POLLIN, 0};
        if (line[0] == 'l')
            ve_wait_poll(&input, 1, -1);
        ve_rl_put_back_ahead();
        if (system(line + 6) != 0)
            ve_puts("failed");
        ve_out_row_unknown();
    } else if (strncmp(line, "quiet ", 6) == 0) {
        if (system(line + 6) == 0)
            ve_out_row_unknown();
        return;
    } else if (strcmp(line, "secret") == 0) {
        read_secret();
        return;
    } else if (strcmp(line, "handler note") == 0) {
        signal(SIGINT, note);
    } else if (strcmp(line, "handler return") == 0) {
        signal(SIGINT, come_back);
    } else if (strcmp(line, "handler none") == 0) {
        signal(SIGINT, SIG_DFL);
    }
    json_t *text = json_string(line);
    char *shown = text != nullptr ? json_dumps(text, JSON_ENCODE_ANY | JSON_ENSURE_ASCII) : strdup("not UTF-8");
    if (strlen(shown) > 2000)
        ve_printf("got %zu bytes\n", strlen(line));
    else
        ve_printf("got %s\n", shown);
    free(shown);
    json_decref(text);
    if (getenv("DEMO_UNBUFFERED") != nullptr)
        ve_out_flush();
}

const char *setting(const char *name, const char *otherwise)
{
    const char *value = getenv(name);
    return value != nullptr ? value : otherwise;
}

/// Reads lines until the end.
void read_lines(int timeout)
{
    bool running = true;
    while (running) {
        char *line = ve_rl(setting("DEMO_PROMPT", "> "), timeout);
        if (line == nullptr && ve_wait_interrupted()) {
            ve_rl_drop_ahead();
            ve_wait_clear_interrupt();
            ve_puts("\nnoted");
            continue;
        }
        if (line == nullptr) {
            ve_puts(ve_rl_ctrld_is_pressed() ? "end" : "none");
            running = timeout >= 0 && !ve_rl_ctrld_is_pressed();
            continue;
        }
        running = strcmp(line, "quit") != 0;
        if (line[0] != '\0')
            history.add(line);
        if (running)
            run(line);
        free(line);
    }
}

} // namespace

int main()
{
    ve_wait_init();
    signal(SIGPIPE, SIG_IGN);
    if (pipe2(control, O_CLOEXEC) < 0)
        return 1;
    ve_rl_set_control_fd(control[0]);
    if (fcntl(3, F_GETFD) >= 0) {
        pthread_t thread;
        pthread_create(&thread, nullptr, take_orders, nullptr);
        pthread_detach(thread);
    }
    const char *history_file = setting("DEMO_HISTORY", "");
    if (history_file[0] != '\0')
        history.load(history_file);
    ve_rl_set_history(&history);
    words = json_loads(setting("DEMO_WORDS", "[]"), 0, nullptr);
    for (int i = 0; i < atoi(setting("DEMO_MANY", "0")); ++i) {
        char name[32];
        snprintf(name, sizeof name, "w%07d", i);
        json_array_append_new(words, json_string(name));
    }
    slow_ms = atoi(setting("DEMO_SLOW", "0"));
    if (json_array_size(words) > 0)
        ve_rl_set_autocomplete_cb(autocomplete);
    if (getenv("DEMO_HINTS") != nullptr)
        ve_rl_set_hint_cb(hint);
    if (getenv("DEMO_COLORS") != nullptr)
        ve_rl_set_colors({220, 78, 100}, {120, 100, 55}, {50, 100, 55});
    read_lines(atoi(setting("DEMO_TIMEOUT", "-1")));
    history.save();
    ve_out_flush();
    json_decref(words);
    return 0;
}
