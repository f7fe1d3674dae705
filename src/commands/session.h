// login, logout, and what concerns the shell itself: color, opt, clear, sh, record.
#pragma once

#include <jansson.h>

int process_login(const char *name, json_t *args);
int process_logout(const char *name, json_t *args);
int process_color(const char *name, json_t *args);
int process_opt(const char *name, json_t *args);
int process_clear(const char *name, json_t *args);
int process_shell(const char *name, json_t *args);
int process_record(const char *name, json_t *args);
