// cd, up, pwd, ls, tree.
#pragma once

#include <jansson.h>

int process_cd(const char *name, json_t *args);
int process_up(const char *name, json_t *args);
int process_pwd(const char *name, json_t *args);
int process_ls(const char *name, json_t *args);
int process_tree(const char *name, json_t *args);
